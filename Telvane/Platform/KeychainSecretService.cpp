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

#include <Telvane/TelvaneLog.h>

#include <libsecret/secret.h>

#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace {

// Our own schema keeps our items apart from other applications' passwords for the same host: a search
// matches xdg:schema as well as the two attributes.
const SecretSchema kSchema = [] {
    SecretSchema schema{}; // the reserved fields must be zero
    schema.name = "org.telvane.Credentials";
    schema.flags = SECRET_SCHEMA_NONE;
    schema.attributes[0] = {"service", SECRET_SCHEMA_ATTRIBUTE_STRING};
    schema.attributes[1] = {"account", SECRET_SCHEMA_ATTRIBUTE_STRING};
    return schema;
}();

template <typename T> struct GObjectUnref
{
    void operator()(T *object) const { g_object_unref(object); }
};
template <typename T> using GObjectPtr = std::unique_ptr<T, GObjectUnref<T>>;

struct ItemListFree
{
    void operator()(GList *items) const { g_list_free_full(items, g_object_unref); }
};
using ItemList = std::unique_ptr<GList, ItemListFree>;

struct SecretValueUnref
{
    void operator()(SecretValue *value) const { secret_value_unref(value); }
};
using SecretValuePtr = std::unique_ptr<SecretValue, SecretValueUnref>;

struct HashTableUnref
{
    void operator()(GHashTable *table) const { g_hash_table_unref(table); }
};
using Attributes = std::unique_ptr<GHashTable, HashTableUnref>;

// Hands a GError ** to a libsecret call and owns whatever it stores there.
class ErrorSlot
{
public:
    ~ErrorSlot() { reset(); }
    GError **out()
    {
        reset();
        return &error_;
    }
    const GError *get() const { return error_; }

private:
    void reset()
    {
        if (error_)
            g_error_free(error_);
        error_ = nullptr;
    }
    GError *error_ = nullptr;
};

// Cancels the calls of one keyring operation when they have not finished within the limit. A thread of its
// own, because the libsecret calls block in a private main loop that nothing else of ours can reach.
class Watchdog
{
public:
    explicit Watchdog(std::chrono::milliseconds limit)
        : cancellable_(g_cancellable_new()), thread_([this, limit] { watch(limit); })
    {}
    ~Watchdog()
    {
        {
            std::lock_guard lock(mutex_);
            finished_ = true;
        }
        wake_.notify_one();
        thread_.join();
    }
    Watchdog(const Watchdog &) = delete;
    Watchdog &operator=(const Watchdog &) = delete;

    GCancellable *cancellable() const { return cancellable_.get(); }
    bool fired() const { return g_cancellable_is_cancelled(cancellable_.get()); }

private:
    void watch(std::chrono::milliseconds limit)
    {
        std::unique_lock lock(mutex_);
        // g_cancellable_cancel is thread-safe; the blocked call then returns G_IO_ERROR_CANCELLED.
        if (!wake_.wait_for(lock, limit, [this] { return finished_; }))
            g_cancellable_cancel(cancellable_.get());
    }

    const GObjectPtr<GCancellable> cancellable_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool finished_ = false; // guarded by mutex_
    std::thread thread_;    // last: it uses everything above
};

// One public operation: its deadline, its connection to the service, and the single place where a failure
// of libsecret becomes our answer (one log line; the caller then reports "nothing" or false).
class Operation
{
public:
    explicit Operation(std::chrono::milliseconds limit) : limit_(limit), watchdog_(limit) {}

    void fail(const char *what, const GError *error, const char *step = "")
    {
        if (watchdog_.fired()) {
            telvaneLog("secret-service keyring: cannot %s: %sno answer within %lld ms", what, step,
                       static_cast<long long>(limit_.count()));
            return;
        }
        telvaneLog("secret-service keyring: cannot %s: %s%s", what, step,
                   error ? error->message : "unknown error");
        // libsecret keeps its service proxy for the life of the process; one whose connection has closed
        // (the bus was restarted) would fail every later call, so let the next operation connect afresh.
        if (error && g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CLOSED))
            secret_service_disconnect();
    }

    void failLocked(const char *what)
    {
        telvaneLog("secret-service keyring: cannot %s: the keyring is locked", what);
    }

    SecretService *service(const char *what)
    {
        if (!service_) {
            ErrorSlot error;
            service_.reset(secret_service_get_sync(SECRET_SERVICE_NONE, cancellable(), error.out()));
            if (!service_)
                fail(what, error.get(), "no connection to the Secret Service: ");
        }
        return service_.get();
    }

    // Every item of ours for (service, account) in the order the keyring lists them; account nullptr
    // matches any account. nullopt (logged) when the search itself failed.
    std::optional<ItemList> search(const std::string &service, const std::string *account, const char *what)
    {
        SecretService *connection = this->service(what);
        if (!connection)
            return std::nullopt;
        Attributes attributes(account
                                  ? secret_attributes_build(&kSchema, "service", service.c_str(), "account",
                                                            account->c_str(), nullptr)
                                  : secret_attributes_build(&kSchema, "service", service.c_str(), nullptr));
        ErrorSlot error;
        // Without SECRET_SEARCH_UNLOCK: libsecret would otherwise ask the daemon to unlock, which prompts.
        ItemList items(secret_service_search_sync(connection, &kSchema, attributes.get(), SECRET_SEARCH_ALL,
                                                  cancellable(), error.out()));
        if (error.get()) {
            fail(what, error.get());
            return std::nullopt;
        }
        return items;
    }

    GCancellable *cancellable() const { return watchdog_.cancellable(); }

private:
    const std::chrono::milliseconds limit_;
    Watchdog watchdog_;
    GObjectPtr<SecretService> service_;
};

// The items of a pair (or of a service), sorted into those that can be read and whether any could not.
struct Matches
{
    ItemList items;                     // owns the items
    std::vector<SecretItem *> unlocked; // those of items that are unlocked
    bool anyLocked = false;
};

std::optional<Matches> findItems(Operation &op, const std::string &service, const std::string *account,
                                 const char *what)
{
    auto items = op.search(service, account, what);
    if (!items)
        return std::nullopt;
    Matches matches{std::move(*items), {}, false};
    for (GList *node = matches.items.get(); node; node = node->next) {
        auto *item = static_cast<SecretItem *>(node->data);
        if (secret_item_get_locked(item))
            matches.anyLocked = true;
        else
            matches.unlocked.push_back(item);
    }
    return matches;
}

// True when some item can be used; when none can because of locks, says so.
bool usable(Operation &op, const Matches &matches, const char *what)
{
    if (!matches.unlocked.empty())
        return true;
    if (matches.anyLocked)
        op.failLocked(what);
    return false;
}

std::string attribute(SecretItem *item, const char *name)
{
    Attributes attributes(secret_item_get_attributes(item));
    const auto *value = static_cast<const char *>(g_hash_table_lookup(attributes.get(), name));
    return value ? value : "";
}

class SecretServiceKeychain final : public TelvaneKeychainBackend
{
public:
    explicit SecretServiceKeychain(std::chrono::milliseconds limit) : limit_(limit) {}
    std::string name() const override { return "secret-service"; }

    std::optional<std::vector<TelvaneKeychainAccount>> accountsForService(const std::string &service) override
    {
        static const char *const what = "list accounts";
        Operation op(limit_);
        const auto found = findItems(op, service, nullptr, what);
        if (!found)
            return std::nullopt;
        // Listing a locked item would offer an account whose password cannot be read without a prompt.
        if (found->anyLocked)
            op.failLocked(what);
        std::vector<TelvaneKeychainAccount> accounts;
        for (SecretItem *item : found->unlocked)
            accounts.push_back({{kTelvaneKeychainAccountKey, attribute(item, "account")},
                                {kTelvaneKeychainServiceKey, attribute(item, "service")}});
        return accounts;
    }

    std::optional<std::string> passwordForService(const std::string &service,
                                                  const std::string &account) override
    {
        static const char *const what = "read a password";
        Operation op(limit_);
        const auto found = findItems(op, service, &account, what);
        if (!found || !usable(op, *found, what))
            return std::nullopt;
        SecretItem *item = found->unlocked.front();
        ErrorSlot error;
        if (!secret_item_load_secret_sync(item, op.cancellable(), error.out())) {
            op.fail(what, error.get());
            return std::nullopt;
        }
        const SecretValuePtr value(secret_item_get_secret(item));
        if (!value) {
            op.fail(what, nullptr);
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
        static const char *const what = "save a password";
        Operation op(limit_);
        const auto found = findItems(op, service, &account, what);
        if (!found)
            return false;
        // A second item for the same pair beside a locked one would leave two passwords that disagree.
        if (found->anyLocked) {
            op.failLocked(what);
            return false;
        }
        const auto &unlocked = found->unlocked;
        const SecretValuePtr value(
            secret_value_new(password.data(), static_cast<gssize>(password.size()), "text/plain"));
        ErrorSlot error;
        // Replace in place wherever the item lives, which need not be the default collection.
        if (!unlocked.empty()) {
            if (!secret_item_set_secret_sync(unlocked.front(), value.get(), op.cancellable(), error.out())) {
                op.fail(what, error.get());
                return false;
            }
            return true;
        }
        SecretService *connection = op.service(what);
        if (!connection)
            return false;
        const GObjectPtr<SecretCollection> collection(secret_collection_for_alias_sync(
            connection, SECRET_COLLECTION_DEFAULT, SECRET_COLLECTION_NONE, op.cancellable(), error.out()));
        if (!collection) {
            if (error.get())
                op.fail(what, error.get());
            else
                telvaneLog("secret-service keyring: cannot %s: the keyring has no default collection", what);
            return false;
        }
        // Creating an item in a locked collection makes libsecret and some daemons prompt for an unlock.
        if (secret_collection_get_locked(collection.get())) {
            op.failLocked(what);
            return false;
        }
        const Attributes attributes(secret_attributes_build(&kSchema, "service", service.c_str(), "account",
                                                            account.c_str(), nullptr));
        const std::string label = "Telvane credentials for " + service;
        const GObjectPtr<SecretItem> created(
            secret_item_create_sync(collection.get(), &kSchema, attributes.get(), label.c_str(), value.get(),
                                    SECRET_ITEM_CREATE_REPLACE, op.cancellable(), error.out()));
        if (!created) {
            op.fail(what, error.get());
            return false;
        }
        return true;
    }

    bool deletePasswordForService(const std::string &service, const std::string &account) override
    {
        static const char *const what = "delete a password";
        Operation op(limit_);
        const auto found = findItems(op, service, &account, what);
        if (!found || !usable(op, *found, what))
            return false;
        // The pair may have been stored twice (in two collections); after a delete it must be gone.
        bool removed = false;
        for (SecretItem *item : found->unlocked) {
            ErrorSlot error;
            if (!secret_item_delete_sync(item, op.cancellable(), error.out())) {
                op.fail(what, error.get());
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
