#pragma once

#include <QByteArray>
#include <QString>
#include <QVariant>

#include "ZarkError.h"

/// Recursive descent over the bytes of one JSON text; the inside of ZarkJson::parse(). Use once.
class ZarkJsonParser {
public:
    /// `utf8` must outlive the parser. With `recordLines` every object gets the key "@line".
    ZarkJsonParser(const QByteArray& utf8, bool recordLines, int maximumValues);

    /// The value; an invalid QVariant when the text is not JSON, and then error() tells why.
    QVariant parse();
    ZarkError error() const;

private:
    bool parseValue(QVariant& out);
    bool parseObject(QVariant& out);
    bool parseMember(QVariantHash& hash);
    bool parseArray(QVariant& out);
    bool parseLiteral(const char* word, int size, const QVariant& value, QVariant& out);

    bool parseNumber(QVariant& out);
    bool skipDigits();
    bool skipFraction(bool& isInteger);
    bool skipExponent(bool& isInteger);
    bool setDouble(const char* begin, QVariant& out);

    bool parseString(QString& out);
    bool parseEscapes(const char* begin, QString& out);
    bool parseEscape(QString& out);
    bool parseUnicodeEscape(QString& out);
    bool readHex4(ushort& unit);
    bool skipPlainText(bool& isAscii);
    bool skipMultiByte();

    void skipSpace();
    bool enter();
    bool failUnexpected(const char* message);
    bool failAt(const char* position, const char* message);

    const char* const m_begin;
    const char* const m_end;
    const char* m_pos;
    const char* m_errorPos = nullptr;
    const char* m_message = nullptr;
    const bool m_recordLines;
    int m_valuesLeft;
    int m_line = 1; // Of m_pos; line feeds occur in white space only.
    int m_depth = 0;
};
