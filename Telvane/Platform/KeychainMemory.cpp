#include "KeychainBackends_p.h"

#include <Telvane/TelvaneSecret.h>

#include <algorithm>
#include <mutex>
#include <vector>

namespace {
class MemoryKeychain final : public TelvaneKeychainBackend
{
public:
    ~MemoryKeychain() override
    {
        for (auto &item : items_)
            telvaneWipe(item.password);
    }
    std::string name() const override { return "memory"; }

    std::optional<std::vector<TelvaneKeychainAccount>> accountsForService(const std::string &service) override
    {
        std::lock_guard lock(mutex_);
        return accountsOf(items_, service);
    }

    std::optional<std::string> passwordForService(const std::string &service,
                                                  const std::string &account) override
    {
        std::lock_guard lock(mutex_);
        const auto it = find(service, account);
        if (it == items_.end())
            return std::nullopt;
        return it->password;
    }

    bool setPassword(const std::string &password, const std::string &service,
                     const std::string &account) override
    {
        std::lock_guard lock(mutex_);
        const auto it = find(service, account);
        if (it != items_.end())
            it->password = password;
        else
            items_.push_back({service, account, password});
        return true;
    }

    bool deletePasswordForService(const std::string &service, const std::string &account) override
    {
        std::lock_guard lock(mutex_);
        const auto it = find(service, account);
        if (it == items_.end())
            return false;
        telvaneWipe(it->password);
        items_.erase(it);
        return true;
    }

private:
    struct Item
    {
        std::string service, account, password;
    };
    std::vector<Item>::iterator find(const std::string &service, const std::string &account)
    {
        return std::find_if(items_.begin(), items_.end(),
                            [&](const Item &i) { return i.service == service && i.account == account; });
    }

    std::mutex mutex_;
    std::vector<Item> items_; // guarded by mutex_
};
} // namespace

std::shared_ptr<TelvaneKeychainBackend> makeMemoryKeychain()
{
    return std::make_shared<MemoryKeychain>();
}
