// Owning wrappers for the libssh handles the server uses.
#pragma once

#include <libssh/libssh.h>
#include <libssh/server.h>

#include <memory>

namespace telvane::faultd {

struct SshBindDeleter
{
    void operator()(ssh_bind bind) const { ssh_bind_free(bind); }
};
struct SshSessionDeleter
{
    void operator()(ssh_session session) const { ssh_free(session); }
};
struct SshKeyDeleter
{
    void operator()(ssh_key key) const { ssh_key_free(key); }
};
struct SshMessageDeleter
{
    void operator()(ssh_message message) const { ssh_message_free(message); }
};
struct SshChannelDeleter
{
    void operator()(ssh_channel channel) const { ssh_channel_free(channel); }
};

using SshBind = std::unique_ptr<std::remove_pointer_t<ssh_bind>, SshBindDeleter>;
using SshSession = std::unique_ptr<std::remove_pointer_t<ssh_session>, SshSessionDeleter>;
using SshKey = std::unique_ptr<std::remove_pointer_t<ssh_key>, SshKeyDeleter>;
using SshMessage = std::unique_ptr<std::remove_pointer_t<ssh_message>, SshMessageDeleter>;
using SshChannel = std::unique_ptr<std::remove_pointer_t<ssh_channel>, SshChannelDeleter>;

} // namespace telvane::faultd
