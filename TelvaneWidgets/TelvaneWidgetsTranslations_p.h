// The translations of the widgets library: one table, "Localizable", embedded as .qm resources.
#pragma once

#include <QtCore/QString>

class QLocale;
class QTranslator;

namespace TelvaneWidgets {

/// Installs the library's translator for QLocale() into the running application, once per application
/// object. Without a translation for the locale nothing is installed and the English keys are shown.
/// GUI thread.
void installTranslator();

/// Loads the library's translation for @p locale into @p translator. False when there is none.
bool loadTranslation(QTranslator &translator, const QLocale &locale);

/// The text of @p key in the "Localizable" table, or the key itself.
QString localized(const char *key);

/// The text of @p key with its "%@" placeholder replaced by @p value; translations keep the placeholder.
QString localizedWith(const char *key, const QString &value);

} // namespace TelvaneWidgets
