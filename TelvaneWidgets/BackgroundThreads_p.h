// Detached threads of the widgets library, counted so that the end of the process waits for their last steps.
#pragma once

#include <functional>

namespace TelvaneWidgets {

/// Starts @p body on a detached thread: a GUI object must never wait for a connection. The end of the
/// process waits (at most five seconds) for such threads to finish, rather than tearing down what they
/// still use. False when the system has no thread left to give. Any thread.
bool startBackgroundThread(std::function<void()> body);

} // namespace TelvaneWidgets
