#pragma once

#include <Telvane/TelvaneWidgetsExport.h>

class Telvane;
struct TelvaneHostKey;

namespace TelvaneCredentials {

/// Asks the user whether to trust the host key @p key that @p sensor's server showed, in an
/// application-modal dialog, and waits for the answer. It shows the host, the key type and the SHA256
/// fingerprint; for a changed key a warning, the known entry's file and line and the `ssh-keygen -R` command
/// that removes it. Like promptForCredentials, meant for the thread that logs in, and run directly when
/// called on the GUI thread, so that a delegate answers with it in one line:
///
/// @code
/// bool shouldTrustHostKey(Telvane &sensor, const TelvaneHostKey &key, bool) override
/// {
///     return TelvaneCredentials::promptForHostKey(sensor, key);
/// }
/// @endcode
///
/// True when the user connects: an unknown key is then remembered (the button says so), a changed key is
/// used for this connection only. False when the user refuses or closes the dialog, and when there is no
/// QApplication or it goes away while the caller waits. Return answers the default button: connect for an
/// unknown key, refuse for a changed one.
TELVANE_WIDGETS_EXPORT bool promptForHostKey(Telvane &sensor, const TelvaneHostKey &key);

} // namespace TelvaneCredentials
