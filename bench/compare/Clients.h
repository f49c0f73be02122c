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

    /// How the library's host takes the output: reading the pipe's handle, or through a sink.
    enum class Path { Pipe, Sink };
    /// The library's host: counting and dropping the bytes, or handing them to us on its standard output
    /// (as ssh does; also for first-byte times). @p environment is added to the child's.
    Outcome telvane(const std::string &script, const Cipher &cipher, Path path, bool toStdout, double limit,
                    const std::map<std::string, std::string> &environment = {}) const;
    Outcome bare(const std::string &script, const Cipher &cipher, double limit,
                 const std::map<std::string, std::string> &environment = {}) const;
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
