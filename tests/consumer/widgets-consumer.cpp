// Links the installed widgets library, to prove its package and CMake target are whole.
#include <Telvane/TelvaneCredentialsAccessoryView.h>

#include <QApplication>
#include <cstdio>

int main(int argc, char **argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    TelvaneCredentialsAccessoryView view;
    const bool ok = view.usernameField() && view.passwordField() && view.rememberPasswordButton();
    std::printf("widgets consumer %s\n", ok ? "ok" : "FAILED");
    return ok ? 0 : 1;
}
