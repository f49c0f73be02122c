#pragma once

#include <Telvane/TelvaneWidgetsExport.h>

#include <optional>
#include <string>
#include <vector>

class Telvane;
struct TelvaneLoginQuestion;

namespace TelvaneCredentials {

/// Puts a question of @p sensor's login to the user in an application-modal dialog, in the style of the
/// credentials prompt, and waits for the answer: what the server asks beyond the password (a one-time code,
/// a token), or an encrypted key's passphrase. It shows the server's name and instruction when it gave
/// them, and one field per prompt, hidden unless the prompt may echo. Like promptForCredentials, meant for
/// the thread that logs in, and run directly when called on the GUI thread, so that a delegate answers with
/// it in one line:
///
/// @code
/// std::optional<std::vector<std::string>> answersForLoginQuestion(Telvane &sensor,
///                                                                 const TelvaneLoginQuestion &question)
///                                                                 override
/// {
///     return TelvaneCredentials::promptForLoginQuestion(sensor, question);
/// }
/// @endcode
///
/// The answers as typed, one per prompt in order, when the user confirms; std::nullopt on Cancel, and when
/// there is no QApplication or it goes away while the caller waits.
TELVANE_WIDGETS_EXPORT std::optional<std::vector<std::string>>
promptForLoginQuestion(Telvane &sensor, const TelvaneLoginQuestion &question);

} // namespace TelvaneCredentials
