// What the Qt Test suites share: the credentials prompt as it shows up, and the rule that a missing
// component skips the test except under CI (CI=true), which can always provide it.
#pragma once

#include <QtTest/QTest>
#include <QtWidgets/QApplication>
#include <QtWidgets/QDialog>

/// Skips with @p why when @p condition fails, or fails under CI.
#define TELVANE_QREQUIRE(condition, why)                                                                     \
    do {                                                                                                     \
        if (!(condition)) {                                                                                  \
            if (qEnvironmentVariable("CI") == QLatin1String("true"))                                         \
                QFAIL(qPrintable(why));                                                                      \
            QSKIP(qPrintable(why));                                                                          \
        }                                                                                                    \
    } while (0)

namespace telvane::test {

/// The credentials prompt when it is the active modal window, else nullptr.
inline QDialog *shownPrompt()
{
    auto *dialog = qobject_cast<QDialog *>(QApplication::activeModalWidget());
    return dialog && dialog->objectName() == QLatin1String("TelvaneCredentialsDialog") ? dialog : nullptr;
}

} // namespace telvane::test
