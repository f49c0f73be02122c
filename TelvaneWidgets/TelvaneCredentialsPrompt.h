#pragma once

#include <Telvane/TelvaneCredentials.h>
#include <Telvane/TelvaneWidgetsExport.h>

#include <optional>

class Telvane;

namespace TelvaneCredentials {

/// Asks the user for a username and a password for @p sensor in an application-modal dialog and waits for
/// the answer. Meant for the thread that logs in (a delegate's credentialsForSensor): the dialog runs on the
/// GUI thread meanwhile. Called on the GUI thread it runs the dialog there directly.
///
/// Answers the pair as typed (empty fields give empty strings) when the user confirms, and then sets
/// @p *persist to the state of the remember-password checkbox. On Cancel, and when there is no QApplication
/// or it goes away while the caller waits, answers std::nullopt and leaves @p *persist as it was.
TELVANE_WIDGETS_EXPORT std::optional<TelvaneCredentialsDictionary> promptForCredentials(Telvane &sensor,
                                                                                        bool *persist);

} // namespace TelvaneCredentials
