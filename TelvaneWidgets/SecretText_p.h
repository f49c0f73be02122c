// Taking what was typed into a hidden field without leaving a copy behind.
#pragma once

#include <string>

class QLineEdit;

namespace TelvaneWidgets {

/// Copies the text out of @p field and leaves no copy behind in the field or in Qt's buffers that we own.
/// GUI thread.
std::string takeSecretText(QLineEdit *field);

} // namespace TelvaneWidgets
