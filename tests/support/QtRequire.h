// For the Qt Test suites: the prompts as they show up, and a missing component skipped (failed under
// CI=true).
#pragma once

#include <QtTest/QTest>
#include <QtWidgets/QApplication>
#include <QtWidgets/QDialog>

#define TELVANE_QREQUIRE(condition, why)                                                                     \
    do {                                                                                                     \
        if (!(condition)) {                                                                                  \
            if (qEnvironmentVariable("CI") == QLatin1String("true"))                                         \
                QFAIL(qPrintable(why));                                                                      \
            QSKIP(qPrintable(why));                                                                          \
        }                                                                                                    \
    } while (0)

namespace telvane::test {

/// The prompt named @p name when it is the active modal window, else nullptr.
inline QDialog *shownPrompt(QLatin1String name = QLatin1String("TelvaneCredentialsDialog"))
{
    auto *dialog = qobject_cast<QDialog *>(QApplication::activeModalWidget());
    return dialog && dialog->objectName() == name ? dialog : nullptr;
}

} // namespace telvane::test
