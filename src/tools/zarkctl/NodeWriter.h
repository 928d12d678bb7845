#pragma once

#include <QVariant>

class ApiClient;

/// A value node before it is written: what it holds, and what it takes.
class NodeWriter {
public:
    /// Reads the node. Throws a Failure, also for what is no value node and for what clients may not set. A node that
    /// can be written without being readable is no failure: what is unknown is not checked then.
    NodeWriter(ApiClient* api, const QString& path);

    const QString& path() const { return m_path; }
    /// Null when it cannot be read.
    const QVariant& value() const { return m_value; }
    QString type() const; ///< "i32", ...; empty when it is not known.
    bool isSecret() const { return m_secret; }
    /// The values that there are, as read() takes them; empty where there are too many to name.
    QStringList choices() const;
    /// A text as a value of the node's type, see ValueText::typed(). Throws a Failure of status ExitRefused when it is
    /// none; the message does not repeat it, which may be a secret.
    QVariant read(const QByteArray& text, bool fromFile) const;
    /// Throws a Failure of status ExitRefused for a value of another type, or out of the node's bounds.
    void check(const QVariant& value) const;
    /// What the node holds afterwards.
    QVariant write(const QVariant& value);

private:
    ApiClient* m_api;
    QString m_path;
    QVariant m_value;
    QVariantHash m_edit;
    bool m_secret = false;
};
