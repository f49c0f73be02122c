#include "SecretText_p.h"

#include <QtWidgets/QLineEdit>

#include <algorithm>

namespace TelvaneWidgets {

std::string takeSecretText(QLineEdit *field)
{
    QString text = field->text();
    // setText, unlike clear(), also drops the undo history, which would keep the typed characters.
    field->setText(QString());
    QByteArray utf8 = text.toUtf8();
    std::string secret(utf8.constData(), static_cast<size_t>(utf8.size()));
    // Now the only owners of their buffers, so writing through them does not detach.
    std::fill(text.begin(), text.end(), QChar());
    std::fill(utf8.begin(), utf8.end(), '\0');
    return secret;
}

} // namespace TelvaneWidgets
