#include "SignatureCheck.h"

#include <QDateTime>
#include <QUrl>

#include <cctype>
#include <cstring>

#include "CryptoHash.h"

struct SignatureCheck::Parts {
    QByteArray scheme, user, salt, time, signature;
};

namespace {

const int DigestBytes = 32;

QByteArray base64Of(const QByteArray& text, const char* what, QByteArrayList* faults)
{
    const QByteArray bytes = QByteArray::fromBase64(text);
    if (bytes.toBase64() != text)
        faults->append(QByteArray(what) + " is not in the standard Base64 alphabet with padding");
    return bytes;
}

QByteArray signatureOf(const QByteArray& key, const QByteArray& message)
{
    QByteArray hashed;
    QByteArray mac;
    CryptoHash::hash(CryptoHash::Sha256, key, &hashed);
    CryptoHash::hmac(CryptoHash::Sha256, hashed, message, &mac);
    return mac;
}

QByteArray clockOf(const QByteArray& time)
{
    bool ok = false;
    const qint64 stated = time.toLongLong(&ok);
    const qint64 seconds = (QDateTime::currentMSecsSinceEpoch() - stated) / 1000;
    if (!ok)
        return "the timestamp is no decimal number";
    if (stated > 100000000 && stated < 100000000000)
        return "the timestamp seems to be in seconds; the device takes milliseconds (it does not refuse for that)";
    if (qAbs(seconds) >= 1)
        return "the timestamp is " + QByteArray::number(seconds) + " s behind this clock; the device only logs that";
    return {};
}

struct Candidate {
    const char* mistake; ///< Null for none.
    QByteArray value;
};

QList<Candidate> urisOf(const QByteArray& sent)
{
    const QByteArray right = SignatureCheck::serversForm(sent);
    const QUrl url = QUrl::fromEncoded(right);
    const QByteArray path = right.mid(right.indexOf('/', right.indexOf("://") + 3));
    const bool isTls = right.startsWith("https:");
    const QByteArray portless = url.toEncoded(QUrl::RemovePort);
    QUrl ported = url;
    ported.setPort(url.port(isTls ? 443 : 80));
    return { { nullptr, right },
        { "the URI was signed as it was sent, and not in the form that the server prints", sent },
        { "the URI was signed without its query", right.left(right.indexOf('?') < 0 ? -1 : right.indexOf('?')) },
        { "the path was signed alone, without scheme and host", path },
        { "the URI was signed without its port", portless },
        { "the URI was signed with the scheme's own port", ported.toEncoded() },
        { "the URI was signed with the other scheme", (isTls ? "http" : "https") + right.mid(isTls ? 5 : 4) },
        { "the URI was signed unescaped", QUrl::fromPercentEncoding(right).toUtf8() } };
}

QList<Candidate> bodiesOf(bool isPost, const QByteArray& body)
{
    if (!isPost)
        return { { nullptr, "" }, { "a dot was signed behind the URI; a GET has no body", "." } };
    return { { nullptr, '.' + body }, { "the body was not signed", "" },
        { "the body was signed without a dot before it", body },
        { "the body was signed with a line end that was not sent", '.' + body + '\n' },
        { "the body was signed without its line end", '.' + body.trimmed() } };
}

QList<Candidate> keysOf(const QByteArray& salt, const QString& password)
{
    const QByteArray bytes = QByteArray::fromBase64(salt);
    const QByteArray utf8 = password.toUtf8();
    return { { nullptr, bytes + utf8 }, { "the key was made of the salt's text, and not of its bytes", salt + utf8 },
        { "the key was made with a line end behind the password", bytes + utf8 + '\n' },
        { "the key was made of the password before the salt", utf8 + bytes },
        { "the password was not taken in UTF-8", bytes + password.toLatin1() }, { "the password was empty", bytes } };
}

} // namespace

QByteArray SignatureCheck::serversForm(const QByteArray& uri)
{
    const int pathStart = uri.indexOf('/', uri.indexOf("://") + 3);
    const QByteArray authority = uri.left(pathStart);
    QUrl base = QUrl::fromEncoded(authority);
    if (base.port() == (base.scheme() == QLatin1String("https") ? 443 : 80))
        base.setPort(-1);
    // The rest byte for byte: QUrl would change more than the server does.
    QByteArray form;
    const QByteArray rest = pathStart < 0 ? QByteArrayLiteral("/") : uri.mid(pathStart);
    for (int i = 0; i < rest.size(); ++i) {
        const char c = rest.at(i);
        const QByteArray plain = c == '%' ? QByteArray::fromHex(rest.mid(i + 1, 2)) : QByteArray();
        const bool unreserved = plain.size() == 1 && (isalnum(uchar(plain.at(0))) || strchr("-._~", plain.at(0)));
        if (unreserved)
            form += plain, i += 2;
        else if (uchar(c) > 126 || uchar(c) <= 32)
            form += '%' + QByteArray(1, c).toHex().toUpper();
        else
            form += c;
    }
    const int query = form.indexOf('?');
    QUrl path;
    path.setPath(QString::fromLatin1(form.mid(0, query)), QUrl::TolerantMode);
    const bool dotted = form.mid(0, query).contains("/.");
    const QByteArray clean = dotted ? path.adjusted(QUrl::NormalizePathSegments).toEncoded() : form.mid(0, query);
    return base.toEncoded() + clean + (query < 0 ? QByteArray() : form.mid(query));
}

QByteArrayList SignatureCheck::faultsOf(const Parts& parts) const
{
    QByteArrayList faults;
    const QByteArray scheme = parts.scheme.toUpper();
    if (scheme != "HMAC_SHA256" && scheme != "HMAC_SHA256_AES256")
        faults.append("the scheme is neither HMAC_SHA256 nor HMAC_SHA256_AES256");
    const QByteArray user = base64Of(parts.user, "the user's name", &faults);
    if (user != m_request.user.toUtf8())
        faults.append("the header names another user: " + user);
    base64Of(parts.salt, "the salt", &faults);
    const QByteArray signature = base64Of(parts.signature, "the signature", &faults);
    if (signature.size() == 2 * DigestBytes * 3 / 4)
        faults.append("the signature is in hexadecimal digits; it has to be in Base64");
    else if (signature.size() != DigestBytes)
        faults.append("the signature has " + QByteArray::number(signature.size()) + " bytes in place of 32");
    const QByteArray clock = clockOf(parts.time);
    if (!clock.isEmpty())
        faults.append(clock);
    return faults;
}

/// The one mistake, or the two, by which the signature comes out. Null when it is right, "" when none is found.
QByteArray SignatureCheck::findMistake(const Parts& parts) const
{
    const QByteArray start = m_request.user.toUtf8() + '.' + parts.salt + '.' + parts.time + '.';
    const QByteArrayList accepted{ QByteArray::fromBase64(parts.signature), QByteArray::fromHex(parts.signature) };
    for (const Candidate& key : keysOf(parts.salt, m_request.password)) {
        for (const Candidate& uri : urisOf(m_request.uri)) {
            for (const Candidate& body : bodiesOf(m_request.isPost, m_request.body)) {
                if (!accepted.contains(signatureOf(key.value, start + uri.value + body.value)))
                    continue;
                QByteArrayList mistakes;
                for (const Candidate& part : { key, uri, body }) {
                    if (part.mistake)
                        mistakes.append(part.mistake);
                }
                return mistakes.isEmpty() ? QByteArray() : mistakes.join("; ");
            }
        }
    }
    return QByteArrayLiteral("");
}

QByteArrayList SignatureCheck::explain(const QByteArray& header, bool* holds) const
{
    const QByteArray value = header.mid(header.startsWith("Authorization:") ? 14 : 0).trimmed();
    const int space = value.indexOf(' ');
    const QByteArrayList fields = value.mid(space + 1).split('.');
    *holds = false;
    if (space < 0 || fields.size() != 4)
        return { "the header is not of the form SCHEME base64(user).salt.timestamp.signature" };
    const Parts parts{ value.left(space), fields.at(0), fields.at(1), fields.at(2), fields.at(3) };
    QByteArrayList lines = faultsOf(parts);
    const QByteArray mistake = findMistake(parts);
    *holds = mistake.isNull();
    if (*holds)
        lines.append("the signature holds for this user, password, URI and body: a device that refuses it has another "
                     "password, does not know the user, or got another URI");
    else if (mistake.isEmpty())
        lines.append("the signature comes out for none of the usual mistakes: another password, user, URI or body");
    else
        lines.append(mistake);
    lines.append("signed is: " + m_request.user.toUtf8() + '.' + parts.salt + '.' + parts.time + '.'
        + serversForm(m_request.uri) + (m_request.isPost ? ".BODY" : ""));
    return lines;
}
