#include <Telvane/TelvaneKeychain.h>

#include "KeychainBackends_p.h"
#include "TextFormat_p.h"
#include <Telvane/TelvaneLog.h>

#include <cstdarg>
#include <cstdlib>
#include <mutex>

const char *const kTelvaneKeychainAccountKey = "acct";
const char *const kTelvaneKeychainServiceKey = "svce";

TelvaneKeychainBackend::~TelvaneKeychainBackend() = default;

namespace {
std::mutex backendMutex;
std::shared_ptr<TelvaneKeychainBackend> currentBackend; // guarded by backendMutex

// The first failure of the savePassword under way on this thread: the backend's own line, as it logged it.
// A backend that fails deeper down (a lock file, then the keyring file) names the first cause.
thread_local TelvaneKeychainSaveResult *saveUnderWay = nullptr;
} // namespace

void keychainFailure(TelvaneKeychainError error, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const std::string line = telvane::formatTextV(format, arguments);
    va_end(arguments);
    telvaneLog("%s", line.c_str());
    if (saveUnderWay && saveUnderWay->error == TelvaneKeychainError::None)
        *saveUnderWay = {error, line};
}

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

TelvaneKeychainSaveResult TelvaneKeychain::savePassword(const std::string &password,
                                                        const std::string &service,
                                                        const std::string &account)
{
    TelvaneKeychainSaveResult result;
    saveUnderWay = &result;
    const bool kept = backend()->setPassword(password, service, account);
    saveUnderWay = nullptr;
    if (kept)
        return {};
    if (result.error == TelvaneKeychainError::None) // a backend of the host program's, which says nothing
        result = {TelvaneKeychainError::Failed, backend()->name() + " keyring: it did not keep the password"};
    return result;
}

bool TelvaneKeychain::deletePasswordForService(const std::string &service, const std::string &account)
{
    return backend()->deletePasswordForService(service, account);
}
