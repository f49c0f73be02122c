#pragma once

#include <Telvane/TelvaneExport.h>

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
namespace TelvaneCredentials {
/// Removes the first stored pair of @p sensor's host. True when a pair was deleted. Any thread.
TELVANE_EXPORT bool forgetCredentials(const Telvane &sensor);
/// The keyring service name for @p hostname (the same as Telvane::serviceNameForSensor()).
TELVANE_EXPORT std::string serviceNameForHost(const std::string &hostname);
} // namespace TelvaneCredentials

/// Overwrites the characters of @p secret, then empties it.
TELVANE_EXPORT void telvaneWipe(std::string &secret) noexcept;
