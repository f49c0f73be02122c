// The desktop keyring (GNOME Keyring, KWallet, KeePassXC) through libsecret's Secret Service client.
//
// Every call runs synchronously on the caller's thread, which is usually in the middle of a login, so each
// one is bounded: a watchdog cancels it when the keyring has not answered in time. A daemon that hangs, or a
// bus that accepts the connection and then says nothing, costs a few seconds rather than the whole run.
//
// Nothing here ever asks the keyring to unlock or to create a collection. Both may show a password prompt,
// and on a headless host or in a service nobody will ever answer it. A locked keyring therefore reads as
// empty and refuses writes, with a log line that says why.
#include "KeychainBackends_p.h"
#include "SecretServiceOperation_p.h"

#include <Telvane/TelvaneLog.h>

#include <vector>

using namespace telvane::secretservice;

namespace {

// Puts @p value into the collection the keyring names as its default, as a new item of our schema for the
// pair (or in place of one that appeared meanwhile).
bool createItem(Operation &op, const std::string &service, const std::string &account, SecretValue *value)
{
    SecretService *connection = op.service();
    if (!connection)
        return false;
    ErrorSlot error;
    const GObjectPtr<SecretCollection> collection(secret_collection_for_alias_sync(
        connection, SECRET_COLLECTION_DEFAULT, SECRET_COLLECTION_NONE, op.cancellable(), error.out()));
    if (!collection) {
        if (error.get())
            op.fail(error.get());
        else
            telvaneLog("secret-service keyring: cannot %s: the keyring has no default collection", op.what());
        return false;
    }
    // Creating an item in a locked collection makes libsecret and some daemons prompt for an unlock.
    if (secret_collection_get_locked(collection.get())) {
        op.failLocked();
        return false;
    }
    const Attributes attributes = attributesFor(service, &account);
    const std::string label = "Telvane credentials for " + service;
    const GObjectPtr<SecretItem> created(
        secret_item_create_sync(collection.get(), &kSchema, attributes.get(), label.c_str(), value,
                                SECRET_ITEM_CREATE_REPLACE, op.cancellable(), error.out()));
    if (!created)
        op.fail(error.get());
    return created != nullptr;
}

class SecretServiceKeychain : public TelvaneKeychainBackend
{
public:
    explicit SecretServiceKeychain(std::chrono::milliseconds limit) : limit_(limit) {}
    std::string name() const override { return "secret-service"; }

    std::optional<std::vector<TelvaneKeychainAccount>> accountsForService(const std::string &service) override
    {
        Operation op(limit_, "list accounts");
        const auto found = op.find(service, nullptr);
        if (!found)
            return std::nullopt;
        // Listing a locked item would offer an account whose password cannot be read without a prompt.
        if (found->anyLocked)
            op.failLocked();
        std::vector<TelvaneKeychainAccount> accounts;
        for (SecretItem *item : found->unlocked)
            accounts.push_back({{kTelvaneKeychainAccountKey, attribute(item, "account")},
                                {kTelvaneKeychainServiceKey, attribute(item, "service")}});
        return accounts;
    }

    std::optional<std::string> passwordForService(const std::string &service,
                                                  const std::string &account) override
    {
        Operation op(limit_, "read a password");
        const auto found = op.find(service, &account);
        if (!found || !op.usable(*found))
            return std::nullopt;
        SecretItem *item = found->unlocked.front();
        ErrorSlot error;
        if (!secret_item_load_secret_sync(item, op.cancellable(), error.out())) {
            op.fail(error.get());
            return std::nullopt;
        }
        const SecretValuePtr value(secret_item_get_secret(item));
        if (!value) {
            op.fail(nullptr);
            return std::nullopt;
        }
        gsize length = 0;
        const gchar *bytes = secret_value_get(value.get(), &length);
        // The only copy we make; libsecret's own buffer is wiped when the value is released.
        return std::string(bytes, length);
    }

    bool setPassword(const std::string &password, const std::string &service,
                     const std::string &account) override
    {
        Operation op(limit_, "save a password");
        const auto found = op.find(service, &account);
        if (!found)
            return false;
        // A second item for the same pair beside a locked one would leave two passwords that disagree.
        if (found->anyLocked) {
            op.failLocked();
            return false;
        }
        const SecretValuePtr value(
            secret_value_new(password.data(), static_cast<gssize>(password.size()), "text/plain"));
        if (found->unlocked.empty())
            return createItem(op, service, account, value.get());
        // Replace in place wherever the item lives, which need not be the default collection.
        ErrorSlot error;
        if (!secret_item_set_secret_sync(found->unlocked.front(), value.get(), op.cancellable(),
                                         error.out())) {
            op.fail(error.get());
            return false;
        }
        return true;
    }

    bool deletePasswordForService(const std::string &service, const std::string &account) override
    {
        Operation op(limit_, "delete a password");
        const auto found = op.find(service, &account);
        if (!found || !op.usable(*found))
            return false;
        // The pair may have been stored twice (in two collections); after a delete it must be gone.
        bool removed = false;
        for (SecretItem *item : found->unlocked) {
            ErrorSlot error;
            if (!secret_item_delete_sync(item, op.cancellable(), error.out())) {
                op.fail(error.get());
                break;
            }
            removed = true;
        }
        return removed;
    }

private:
    const std::chrono::milliseconds limit_;
};

} // namespace

std::shared_ptr<TelvaneKeychainBackend> makeSecretServiceKeychain(std::chrono::milliseconds limit)
{
    return std::make_shared<SecretServiceKeychain>(limit);
}
