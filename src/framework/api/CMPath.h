#pragma once

#include <QHash>
#include <QMetaType>
#include <QString>
#include <QStringList>

/// The path of a node: a worker name and segments. Text form "worker:segment/segment", each segment percent-encoded
/// (RFC 3986: unreserved characters as they are, every other byte of its UTF-8 as %XX with upper-case digits).
///
/// The old form without a worker name ("/player/volume") is kept as written and is valid as a text, though no node has
/// such a path. Cheap to copy and to compare: the encoded text is what is stored.
class CMPath {
public:
    CMPath() = default;

    /// Accepts anything; isValid() tells whether it is a path. What a client sends unencoded but unambiguous
    /// ("player:player/my list") is not repaired.
    static CMPath fromEncoded(const QString& encoded);
    /// From plain segments, which are encoded here.
    static CMPath fromSegments(const QString& worker, const QStringList& segments);

    /// The text as given to fromEncoded(): toEncoded(fromEncoded(x)) == x for every x.
    const QString& toEncoded() const { return m_encoded; }

    /// A non-empty worker name and at least one segment, or the old form; no empty segment, nothing unencoded, no
    /// invalid escape, no escape of an unreserved character or with lower-case digits (one text for one path).
    bool isValid() const { return m_valid; }
    bool isEmpty() const { return m_encoded.isEmpty(); }

    QString worker() const; ///< "player"; empty for the old form.
    QStringList segments() const; ///< Decoded.
    QString name() const; ///< The last segment, decoded.
    CMPath parent() const; ///< Without the last segment; an invalid path when there is one segment only.
    CMPath child(const QString& segment) const; ///< With one more segment, which is encoded here.

    bool operator==(const CMPath& other) const { return m_encoded == other.m_encoded; }
    bool operator!=(const CMPath& other) const { return m_encoded != other.m_encoded; }

private:
    QString m_encoded;
    bool m_valid = false;
};

inline uint qHash(const CMPath& path, uint seed = 0)
{
    return qHash(path.toEncoded(), seed);
}

Q_DECLARE_METATYPE(CMPath)
