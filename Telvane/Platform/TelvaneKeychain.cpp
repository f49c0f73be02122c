#include <Telvane/TelvaneKeychain.h>

#include "KeychainBackends_p.h"
#include <Telvane/TelvaneLog.h>

#include <cstdlib>
#include <mutex>

const char *const kTelvaneKeychainAccountKey = "acct";
const char *const kTelvaneKeychainServiceKey = "svce";

TelvaneKeychainBackend::~TelvaneKeychainBackend() = default;

namespace {
std::mutex backendMutex;
std::shared_ptr<TelvaneKeychainBackend> currentBackend; // guarded by backendMutex
} // namespace

std::shared_ptr<TelvaneKeychainBackend> TelvaneKeychain::makeBackend(const std::string &name)
{
    if (name == "secret-service")
        return makeSecretServiceKeychain();
    if (name == "file")
        return makeFileKeychain(defaultFileKeychainPath());
    if (name == "memory")
        return makeMemoryKeychain();
    telvaneLog("keyring: unknown backend \"%s\" in TELVANE_KEYRING (use secret-service, file or memory)",
               name.c_str());
    return nullptr;
}

std::shared_ptr<TelvaneKeychainBackend> TelvaneKeychain::backend()
{
    std::lock_guard lock(backendMutex);
    if (!currentBackend) {
        const char *choice = std::getenv("TELVANE_KEYRING");
        const std::string name = choice && *choice ? choice : "secret-service";
        currentBackend = makeBackend(name);
        // An unknown name must not silently fall back to storing passwords somewhere the user did not pick:
        // such a keyring holds nothing and keeps nothing.
        if (!currentBackend)
            currentBackend = makeMemoryKeychain();
    }
    return currentBackend;
}

void TelvaneKeychain::setBackend(std::shared_ptr<TelvaneKeychainBackend> backend)
{
    std::lock_guard lock(backendMutex);
    currentBackend = std::move(backend);
}

std::optional<std::vector<TelvaneKeychainAccount>>
TelvaneKeychain::accountsForService(const std::string &service)
{
    return backend()->accountsForService(service);
}

std::optional<std::string> TelvaneKeychain::passwordForService(const std::string &service,
                                                               const std::string &account)
{
    return backend()->passwordForService(service, account);
}

bool TelvaneKeychain::setPassword(const std::string &password, const std::string &service,
                                  const std::string &account)
{
    return backend()->setPassword(password, service, account);
}

bool TelvaneKeychain::deletePasswordForService(const std::string &service, const std::string &account)
{
    return backend()->deletePasswordForService(service, account);
}
