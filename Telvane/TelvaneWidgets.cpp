// Telvane::Widgets: the credentials prompt and the diagnostics panel.
#include <QtWidgets/QWidget>
