#include "JsonLongString.h"

#include <QTextCodec>

#include <algorithm>
#include <cstring>

namespace {

constexpr int Utf8Mib = 106;

/// '\0' for an escape that is not one letter for one character.
char unescaped(char letter)
{
    static const char letters[] = "\"\\/bfnrt";
    static const char characters[] = "\"\\/\b\f\n\r\t";
    const char* found = letter == '\0' ? nullptr : std::strchr(letters, letter);
    return found ? characters[found - letters] : '\0';
}

/// False for an escape that is none of these. The text has an end that is not escaped.
bool unescape(const char* from, const char* end, QByteArray* utf8)
{
    utf8->resize(int(end - from));
    char* to = utf8->data();
    for (; from < end; ++from) {
        const char character = *from == '\\' ? unescaped(*++from) : *from;
        if (character == '\0')
            return false;
        *to++ = character;
    }
    utf8->truncate(int(to - utf8->constData()));
    return true;
}

} // namespace

QString readLongJsonString(const char* begin, const char* end)
{
    if (std::any_of(begin, end, [](char c) { return uchar(c) < 0x20; }))
        return {};
    QByteArray utf8;
    if (!std::memchr(begin, '\\', size_t(end - begin)))
        utf8.setRawData(begin, uint(end - begin));
    else if (!unescape(begin, end, &utf8))
        return {};
    // A byte order mark is a character of the text like any other.
    QTextCodec::ConverterState state(QTextCodec::IgnoreHeader);
    const QString text = QTextCodec::codecForMib(Utf8Mib)->toUnicode(utf8.constData(), utf8.size(), &state);
    return state.invalidChars == 0 && state.remainingChars == 0 ? text : QString();
}
