// For the Qt Test suites: the prompts as they show up, a row's translation, and a missing component skipped
// (failed under CI=true).
#pragma once

#include "TelvaneWidgetsTranslations_p.h"

#include <QtCore/QTimer>
#include <QtCore/QTranslator>
#include <QtTest/QTest>
#include <QtWidgets/QApplication>
#include <QtWidgets/QDialog>

#include <functional>

#define TELVANE_QREQUIRE(condition, why)                                                                     \
    do {                                                                                                     \
        if (!(condition)) {                                                                                  \
            if (qEnvironmentVariable("CI") == QLatin1String("true"))                                         \
                QFAIL(qPrintable(why));                                                                      \
            QSKIP(qPrintable(why));                                                                          \
        }                                                                                                    \
    } while (0)

namespace telvane::test {

/// Hands @p act each modal prompt (only those named @p name, unless null) as it shows, while it lives.
struct PromptWatch : QTimer
{
    PromptWatch(const char *name, std::function<void(QDialog *)> act)
    {
        connect(this, &QTimer::timeout, [name, act = std::move(act)] {
            auto *dialog = qobject_cast<QDialog *>(QApplication::activeModalWidget());
            if (dialog && (!name || dialog->objectName() == QLatin1String(name)))
                act(dialog);
        });
        start(10);
    }
};

/// For a row whose tag starts with "German", the library's German translation, installed while it lives. A
/// text of the "Localizable" table that German has no entry for comes out marked all the same, so that any
/// text that goes through the table shows, translated or not.
struct RowTranslation : QTranslator
{
    const bool german = QByteArray(QTest::currentDataTag()).startsWith("German") &&
                        TelvaneWidgets::loadTranslation(*this, QLocale(QLocale::German)) &&
                        QCoreApplication::installTranslator(this);

    QString translate(const char *context, const char *key, const char *disambiguation, int n) const override
    {
        const QString text = QTranslator::translate(context, key, disambiguation, n);
        return text.isEmpty() && qstrcmp(context, "Localizable") == 0 ? "[de] " + QString(key) : text;
    }
};

} // namespace telvane::test
