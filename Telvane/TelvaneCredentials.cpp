#include <Telvane/TelvaneCredentials.h>

#include <Telvane/TelvaneKeychain.h>
#include <Telvane/Telvane.h>

#include <cstring>

void telvaneWipe(std::string &secret) noexcept
{
    // Reach the whole buffer, the part past size() included (a shrunk or moved-from string keeps old
    // characters there); resize() within the capacity does not reallocate.
    secret.resize(secret.capacity());
    explicit_bzero(secret.data(), secret.size());
    secret.clear();
}

TelvaneCredentialsDictionary::TelvaneCredentialsDictionary(std::string username, std::string password)
    : username(std::move(username)), password(std::move(password))
{}

TelvaneCredentialsDictionary::TelvaneCredentialsDictionary(TelvaneCredentialsDictionary &&other) noexcept
    : username(std::move(other.username)), password(std::move(other.password))
{
    telvaneWipe(other.password);
}

TelvaneCredentialsDictionary &
TelvaneCredentialsDictionary::operator=(const TelvaneCredentialsDictionary &other)
{
    if (this != &other) {
        username = other.username;
        telvaneWipe(password);
        password = other.password;
    }
    return *this;
}

TelvaneCredentialsDictionary &
TelvaneCredentialsDictionary::operator=(TelvaneCredentialsDictionary &&other) noexcept
{
    if (this != &other) {
        username = std::move(other.username);
        telvaneWipe(password);
        password = std::move(other.password);
        telvaneWipe(other.password);
    }
    return *this;
}

TelvaneCredentialsDictionary::~TelvaneCredentialsDictionary()
{
    telvaneWipe(password);
}

namespace TelvaneCredentials {

std::string serviceNameForHost(const std::string &hostname)
{
    return "com.quillmere.sensor.credentials (" + hostname + ")";
}

namespace {
// The account of the first pair kept for @p service: the one a run uses.
std::optional<std::string> firstAccount(const std::string &service)
{
    const auto accounts = TelvaneKeychain::accountsForService(service);
    if (!accounts || accounts->empty())
        return std::nullopt;
    const auto account = accounts->front().find(kTelvaneKeychainAccountKey);
    if (account == accounts->front().end())
        return std::nullopt;
    return account->second;
}
} // namespace

std::optional<TelvaneCredentialsDictionary> storedCredentials(const std::string &hostname)
{
    const std::string service = serviceNameForHost(hostname);
    const auto account = firstAccount(service);
    if (!account)
        return std::nullopt;
    auto password = TelvaneKeychain::passwordForService(service, *account);
    if (!password)
        return std::nullopt;
    std::optional<TelvaneCredentialsDictionary> stored{std::in_place, *account, *password};
    telvaneWipe(*password);
    return stored;
}

void credentialsRefused(const std::string &hostname, const std::string &username)
{
    TelvaneKeychain::deletePasswordForService(serviceNameForHost(hostname), username);
}

bool credentialsAccepted(const std::string &hostname, const TelvaneCredentialsDictionary &credentials,
                         bool persist)
{
    return !persist || TelvaneKeychain::setPassword(credentials.password, serviceNameForHost(hostname),
                                                    credentials.username);
}

bool forgetCredentials(const Telvane &sensor)
{
    const std::string service = serviceNameForHost(sensor.hostname());
    const auto account = firstAccount(service);
    return account && TelvaneKeychain::deletePasswordForService(service, *account);
}

} // namespace TelvaneCredentials
