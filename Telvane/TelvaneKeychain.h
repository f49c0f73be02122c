#pragma once

#include <Telvane/TelvaneExport.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// One keyring item as listed by accountsForService: attribute name to value. The account name is held
/// under kTelvaneKeychainAccountKey.
using TelvaneKeychainAccount = std::map<std::string, std::string>;

/// The key under which a TelvaneKeychainAccount holds its account name.
TELVANE_EXPORT extern const char *const kTelvaneKeychainAccountKey;
/// The key under which a TelvaneKeychainAccount holds its service name.
TELVANE_EXPORT extern const char *const kTelvaneKeychainServiceKey;

/// A store of generic passwords, keyed by service and account. Implementations report failure only as an
/// empty result or false, and log one line naming the backend and the reason.
class TELVANE_EXPORT TelvaneKeychainBackend
{
public:
    virtual ~TelvaneKeychainBackend();
    /// The backend's name, as TELVANE_KEYRING selects it.
    virtual std::string name() const = 0;
    /// Every item of @p service, in the store's own order; empty or nullopt when there is none.
    virtual std::optional<std::vector<TelvaneKeychainAccount>>
    accountsForService(const std::string &service) = 0;
    /// The password of the item of @p service and @p account; nullopt when there is none.
    virtual std::optional<std::string> passwordForService(const std::string &service,
                                                          const std::string &account) = 0;
    /// Creates the item, or replaces the password of the item with this service and account.
    virtual bool setPassword(const std::string &password, const std::string &service,
                             const std::string &account) = 0;
    /// Removes that one item; true when it was there and is gone.
    virtual bool deletePasswordForService(const std::string &service, const std::string &account) = 0;
};

/// The keyring facade the library uses. The backend is chosen on first use from TELVANE_KEYRING:
/// "secret-service" (the default: GNOME Keyring, KWallet, KeePassXC through the Secret Service API),
/// "file" (one 0600 file under $XDG_DATA_HOME/telvane) or "memory" (this process only).
class TELVANE_EXPORT TelvaneKeychain
{
public:
    ///@{
    /// The backend's operations of the same names (see TelvaneKeychainBackend), on the backend in use.
    /// Any thread; each call is synchronous and bounded in time.
    static std::optional<std::vector<TelvaneKeychainAccount>> accountsForService(const std::string &service);
    static std::optional<std::string> passwordForService(const std::string &service,
                                                         const std::string &account);
    static bool setPassword(const std::string &password, const std::string &service,
                            const std::string &account);
    static bool deletePasswordForService(const std::string &service, const std::string &account);
    ///@}

    /// The backend in use (chosen from the environment on first call).
    static std::shared_ptr<TelvaneKeychainBackend> backend();
    /// Replaces the backend for the whole process; nullptr goes back to the environment's choice.
    static void setBackend(std::shared_ptr<TelvaneKeychainBackend> backend);
    /// Makes a backend by name; nullptr (and a log line) for an unknown name.
    static std::shared_ptr<TelvaneKeychainBackend> makeBackend(const std::string &name);
};
