#include "KeychainBackends.h"

#include <Telvane/Platform/TelvaneLog.h>

// Placeholder until the libsecret backend lands: holds nothing and keeps nothing.
namespace {
class SecretServiceKeychain final : public TelvaneKeychainBackend
{
public:
    std::string name() const override { return "secret-service"; }
    std::optional<std::vector<TelvaneKeychainAccount>> accountsForService(const std::string &) override
    {
        return std::nullopt;
    }
    std::optional<std::string> passwordForService(const std::string &, const std::string &) override
    {
        return std::nullopt;
    }
    bool setPassword(const std::string &, const std::string &, const std::string &) override { return false; }
    bool deletePasswordForService(const std::string &, const std::string &) override { return false; }
};
} // namespace

std::shared_ptr<TelvaneKeychainBackend> makeSecretServiceKeychain()
{
    return std::make_shared<SecretServiceKeychain>();
}
