#include "SecretServiceOperation_p.h"

#include <Telvane/TelvaneLog.h>

namespace telvane::secretservice {

const SecretSchema kSchema = [] {
    SecretSchema schema{}; // the reserved fields must be zero
    schema.name = "org.telvane.Credentials";
    schema.flags = SECRET_SCHEMA_NONE;
    schema.attributes[0] = {"service", SECRET_SCHEMA_ATTRIBUTE_STRING};
    schema.attributes[1] = {"account", SECRET_SCHEMA_ATTRIBUTE_STRING};
    return schema;
}();

Attributes attributesFor(const std::string &service, const std::string *account)
{
    return Attributes(account ? secret_attributes_build(&kSchema, "service", service.c_str(), "account",
                                                        account->c_str(), nullptr)
                              : secret_attributes_build(&kSchema, "service", service.c_str(), nullptr));
}

std::string attribute(SecretItem *item, const char *name)
{
    Attributes attributes(secret_item_get_attributes(item));
    const auto *value = static_cast<const char *>(g_hash_table_lookup(attributes.get(), name));
    return value ? value : "";
}

void ErrorSlot::reset()
{
    if (error_)
        g_error_free(error_);
    error_ = nullptr;
}

Watchdog::Watchdog(std::chrono::milliseconds limit)
    : cancellable_(g_cancellable_new()), thread_([this, limit] { watch(limit); })
{}

Watchdog::~Watchdog()
{
    {
        std::lock_guard lock(mutex_);
        finished_ = true;
    }
    wake_.notify_one();
    thread_.join();
}

void Watchdog::watch(std::chrono::milliseconds limit)
{
    std::unique_lock lock(mutex_);
    // g_cancellable_cancel is thread-safe; the blocked call then returns G_IO_ERROR_CANCELLED.
    if (!wake_.wait_for(lock, limit, [this] { return finished_; }))
        g_cancellable_cancel(cancellable_.get());
}

void Operation::fail(const GError *error, const char *step)
{
    if (watchdog_.fired()) {
        telvaneLog("secret-service keyring: cannot %s: %sno answer within %lld ms", what_, step,
                   static_cast<long long>(limit_.count()));
        return;
    }
    telvaneLog("secret-service keyring: cannot %s: %s%s", what_, step,
               error ? error->message : "unknown error");
    // libsecret keeps its service proxy for the life of the process; one whose connection has closed (the
    // bus was restarted) would fail every later call, so let the next operation connect afresh.
    if (error && g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CLOSED))
        secret_service_disconnect();
}

void Operation::failLocked()
{
    telvaneLog("secret-service keyring: cannot %s: the keyring is locked", what_);
}

SecretService *Operation::service()
{
    if (!service_) {
        ErrorSlot error;
        service_.reset(secret_service_get_sync(SECRET_SERVICE_NONE, cancellable(), error.out()));
        if (!service_)
            fail(error.get(), "no connection to the Secret Service: ");
    }
    return service_.get();
}

std::optional<Matches> Operation::find(const std::string &service, const std::string *account)
{
    SecretService *connection = this->service();
    if (!connection)
        return std::nullopt;
    const Attributes attributes = attributesFor(service, account);
    ErrorSlot error;
    // Without SECRET_SEARCH_UNLOCK: libsecret would otherwise ask the daemon to unlock, which prompts.
    Matches matches{ItemList(secret_service_search_sync(connection, &kSchema, attributes.get(),
                                                        SECRET_SEARCH_ALL, cancellable(), error.out())),
                    {},
                    false};
    if (error.get()) {
        fail(error.get());
        return std::nullopt;
    }
    for (GList *node = matches.items.get(); node; node = node->next) {
        auto *item = static_cast<SecretItem *>(node->data);
        if (secret_item_get_locked(item))
            matches.anyLocked = true;
        else
            matches.unlocked.push_back(item);
    }
    return matches;
}

bool Operation::usable(const Matches &matches)
{
    if (!matches.unlocked.empty())
        return true;
    if (matches.anyLocked)
        failLocked();
    return false;
}

} // namespace telvane::secretservice
