#include "PelorinTray/Texts.h"

#include <QLocale>
#include <QStringList>

namespace pelorin {

Texts::Language Texts::ofLocale()
{
    const QStringList wanted = QLocale::system().uiLanguages();
    return !wanted.isEmpty() && wanted.first().startsWith("zh") ? Language::chinese : Language::english;
}

QString Texts::operator()(const Phrase& phrase) const
{
    return QString::fromUtf8(language == Language::chinese ? phrase.chinese : phrase.english);
}

QString Texts::ofHost(const QString& text) const
{
    if (text == QString::fromUtf8(texts::cannotPair.chinese)) return (*this)(texts::cannotPair);
    const qsizetype end = text.indexOf('\n');
    if (end < 0) return text;
    return language == Language::chinese ? text.left(end) : text.mid(end + 1).trimmed();
}

} // namespace pelorin
