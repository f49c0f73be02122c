#include "TelvaneWidgetsTranslations_p.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QLocale>
#include <QtCore/QPointer>
#include <QtCore/QTranslator>

// Outside any namespace, as Q_INIT_RESOURCE requires. Referencing the resource's initialiser also keeps
// its object file in links against the static library.
static void initTranslationResources()
{
    Q_INIT_RESOURCE(telvane_translations);
}

namespace TelvaneWidgets {

bool loadTranslation(QTranslator &translator, const QLocale &locale)
{
    initTranslationResources();
    return translator.load(locale, QStringLiteral("Localizable"), QStringLiteral("_"),
                           QStringLiteral(":/telvane/translations"));
}

void installTranslator()
{
    auto *app = QCoreApplication::instance();
    if (!app)
        return;
    // Owned by the application object, so that a later application object gets a translator of its own.
    // GUI thread only, like the prompt that asks for it.
    static QPointer<QCoreApplication> installedFor;
    if (installedFor == app)
        return;
    installedFor = app;
    auto *translator = new QTranslator(app);
    if (!loadTranslation(*translator, QLocale())) {
        delete translator;
        return;
    }
    QCoreApplication::installTranslator(translator);
}

QString localized(const char *key)
{
    return QCoreApplication::translate("Localizable", key);
}

QString localizedWith(const char *key, const QString &value)
{
    return localized(key).replace(QLatin1String("%@"), value);
}

} // namespace TelvaneWidgets
