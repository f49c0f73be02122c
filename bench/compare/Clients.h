// The clients under comparison, each run as a process of its own against the same sshd: the library's
// benchmark host, the bare libssh loop, and OpenSSH's ssh with its password given by sshpass.
#pragma once

#include "Child.h"

#include <map>
#include <string>

namespace telvane::bench {

struct Cipher
{
    std::string cipher; // empty: the client's own default
    std::string mac;    // empty: the client's own default (or none, for an AEAD cipher)
};

struct Outcome
{
    ChildResult child;
    std::map<std::string, std::string> result; // the key=value lines a bench program wrote
    long long bytes = 0;                       // output bytes the client saw
    bool ok = false;
};

class Clients
{
public:
    Clients(std::string binDir, std::string workDir, int port, std::string passwordFile)
        : binDir_(std::move(binDir)), workDir_(std::move(workDir)), port_(port),
          passwordFile_(std::move(passwordFile))
    {}

    /// The library's host: --sink discard counts the bytes, stdout hands them to us (for first-byte times).
    Outcome telvane(const std::string &script, const Cipher &cipher, bool toStdout, double limit) const;
    Outcome bare(const std::string &script, const Cipher &cipher, double limit) const;
    Outcome ssh(const std::string &script, const Cipher &cipher, double limit) const;
    /// Any other mode of the host (scale, stall) with extra options.
    Outcome host(const std::string &mode, const std::map<std::string, std::string> &options,
                 double limit) const;

private:
    std::map<std::string, std::string> cipherEnvironment(const Cipher &cipher) const;
    Outcome finish(ChildResult child, const std::string &resultPath) const;
    std::string resultPath() const;

    std::string binDir_;
    std::string workDir_;
    int port_;
    std::string passwordFile_;
    mutable int sequence_ = 0;
};

} // namespace telvane::bench
