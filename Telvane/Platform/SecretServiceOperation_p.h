// The GLib and libsecret side of the Secret Service keyring: owners for their handles, a deadline for every
// call, and the one place where a failure of libsecret becomes a log line. Internal to the library.
#pragma once

#include <libsecret/secret.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace telvane::secretservice {

/// Our own schema keeps our items apart from other applications' passwords for the same host: a search
/// matches xdg:schema as well as the two attributes, "service" and "account".
extern const SecretSchema kSchema;

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

/// Our attributes for @p service and @p account; @p account nullptr leaves it out, so that a search with
/// them matches any account.
Attributes attributesFor(const std::string &service, const std::string *account);

/// The value of @p item's attribute @p name; empty when it has none.
std::string attribute(SecretItem *item, const char *name);

/// Hands a GError ** to a libsecret call and owns whatever it stores there.
class ErrorSlot
{
public:
    ErrorSlot() = default;
    ErrorSlot(const ErrorSlot &) = delete;
    ErrorSlot &operator=(const ErrorSlot &) = delete;
    ~ErrorSlot() { reset(); }
    GError **out()
    {
        reset();
        return &error_;
    }
    const GError *get() const { return error_; }

private:
    void reset();
    GError *error_ = nullptr;
};

/// Cancels the calls of one keyring operation when they have not finished within the limit. A thread of its
/// own, because the libsecret calls block in a private main loop that nothing else of ours can reach.
class Watchdog
{
public:
    explicit Watchdog(std::chrono::milliseconds limit);
    ~Watchdog();
    Watchdog(const Watchdog &) = delete;
    Watchdog &operator=(const Watchdog &) = delete;

    GCancellable *cancellable() const { return cancellable_.get(); }
    bool fired() const { return g_cancellable_is_cancelled(cancellable_.get()); }

private:
    void watch(std::chrono::milliseconds limit);

    const GObjectPtr<GCancellable> cancellable_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool finished_ = false; // guarded by mutex_
    std::thread thread_;    // last: it uses everything above
};

/// The items of a pair (or of a service), sorted into those that can be read and whether any could not.
struct Matches
{
    ItemList items;                     // owns the items
    std::vector<SecretItem *> unlocked; // those of items that are unlocked
    bool anyLocked = false;
};

/// One public operation of the keyring, named by @p what in its log lines ("read a password"): its deadline,
/// its connection to the service, and the single place where a failure of libsecret becomes our answer (one
/// log line; the caller then reports "nothing" or false). One thread only.
class Operation
{
public:
    Operation(std::chrono::milliseconds limit, const char *what)
        : limit_(limit), what_(what), watchdog_(limit)
    {}

    /// Logs that the operation failed: at @p step (a prefix of the reason), with @p error, or because the
    /// deadline passed.
    void fail(const GError *error, const char *step = "");
    /// Logs that the operation failed because the keyring is locked.
    void failLocked();

    /// The connection to the service; nullptr (logged) when there is none.
    SecretService *service();

    /// Every item of ours for (service, account) in the order the keyring lists them; account nullptr
    /// matches any account. nullopt (logged) when the search itself failed.
    std::optional<Matches> find(const std::string &service, const std::string *account);

    /// True when some of @p matches can be used; when none can because of locks, says so.
    bool usable(const Matches &matches);

    GCancellable *cancellable() const { return watchdog_.cancellable(); }
    const char *what() const { return what_; }

private:
    const std::chrono::milliseconds limit_;
    const char *const what_;
    Watchdog watchdog_;
    GObjectPtr<SecretService> service_;
};

} // namespace telvane::secretservice
