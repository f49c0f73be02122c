// The way the widgets' prompts reach the GUI thread from the thread that logs in.
#pragma once

#include <functional>

namespace TelvaneWidgets {

/// Runs @p prompt on the GUI thread and waits for it to return: at once when called there, else through the
/// application's relay while the GUI thread keeps running its events. False, with a log line naming
/// @p caller, when it did not run: no QApplication (a QCoreApplication has no widgets), or the application
/// went away while the caller waited. Any thread.
bool runPromptOnGuiThread(const char *caller, const std::function<void()> &prompt);

} // namespace TelvaneWidgets
