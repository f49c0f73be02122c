#pragma once

#include <Telvane/TelvaneExport.h>

#include <optional>
#include <string>

class Telvane;

/// A username and a password, as a user typed them (either may be empty). The password's memory is cleared
/// when the record is destroyed or assigned over.
struct TELVANE_EXPORT TelvaneCredentialsDictionary
{
    std::string username; ///< the "username" of the pair
    std::string password; ///< the "password" of the pair

    /// Two empty strings: confirmed empty fields, which is not the same as no credentials (std::nullopt).
    TelvaneCredentialsDictionary() = default;
    /// The pair as given.
    TelvaneCredentialsDictionary(std::string username, std::string password);
    ///@{
    /// Copies and moves; a moved-from or overwritten password is cleared first.
    TelvaneCredentialsDictionary(const TelvaneCredentialsDictionary &) = default;
    TelvaneCredentialsDictionary(TelvaneCredentialsDictionary &&other) noexcept;
    TelvaneCredentialsDictionary &operator=(const TelvaneCredentialsDictionary &other);
    TelvaneCredentialsDictionary &operator=(TelvaneCredentialsDictionary &&other) noexcept;
    ///@}
    /// Clears the password's memory.
    ~TelvaneCredentialsDictionary();

    /// Equal when both fields are.
    friend bool operator==(const TelvaneCredentialsDictionary &,
                           const TelvaneCredentialsDictionary &) = default;
};

/// The stored credentials of sensor hosts. Each host keeps its pairs in the keyring under the service
/// "com.quillmere.sensor.credentials (HOSTNAME)"; the first account found is the one used.
/// The rules of a login, in the order a run meets them: the stored pair first (the delegate is asked when
/// there is none), a refused pair forgotten whichever source it came from, an accepted one kept only when
/// asked. Each may be called from any thread.
namespace TelvaneCredentials {
/// The stored pair of @p hostname: the first account kept for it and its password; nothing when there is no
/// whole pair.
TELVANE_EXPORT std::optional<TelvaneCredentialsDictionary> storedCredentials(const std::string &hostname);
/// The server refused @p username on @p hostname: its stored password is deleted.
TELVANE_EXPORT void credentialsRefused(const std::string &hostname, const std::string &username);
/// The server accepted @p credentials on @p hostname: they are kept in the keyring when @p persist. False
/// only when they should have been kept and the keyring did not take them.
TELVANE_EXPORT bool credentialsAccepted(const std::string &hostname,
                                        const TelvaneCredentialsDictionary &credentials, bool persist);
/// Removes the first stored pair of @p sensor's host. True when a pair was deleted.
TELVANE_EXPORT bool forgetCredentials(const Telvane &sensor);
/// The keyring service name for @p hostname (the same as Telvane::serviceNameForSensor()).
TELVANE_EXPORT std::string serviceNameForHost(const std::string &hostname);
} // namespace TelvaneCredentials

#include <Telvane/TelvaneSecret.h>
