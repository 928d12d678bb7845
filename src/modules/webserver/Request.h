#pragma once

#include <QHash>
#include <QString>
#include <QVariant>

#include "Message.h"
#include "ZarkJson.h"

/// The exchange as a responder sees it: a Message with the id that its handler gave it, the decoded body and a small
/// table of CGI-style variables (RFC 3875, section 4.1). Both are read on first use and kept.
class Request : public Message {
    Q_OBJECT
public:
    Request(const MessageData& data, int id, QObject* parent = nullptr) : Message(data, parent), m_requestId(id) { }

    int requestId() const { return m_requestId; } ///< 0: no handler has given it one.
    void setRequestId(int id) { m_requestId = id; }
    /// How many JSON values, or fields of a form, a body may have; one with more counts as malformed.
    void setMaximumValues(int values) { m_maximumValues = values; }

    /// A QVariantHash of texts for application/x-www-form-urlencoded, the JSON value for application/json; invalid for
    /// an empty or malformed body and for any other type.
    QVariant postData() const;
    void parsePostData() const; ///< Reads the body again.

    /// REQUEST_URI, QUERY_STRING, REMOTE_ADDR, REMOTE_PORT.
    QHash<QString, QString> serverData() const;
    /// Empty for an unknown key, which is a key of the table from then on.
    QString serverData(const QString& key) const;
    void parseServerData() const; ///< Fills the table again.

    /// As Message::releaseInput(); the decoded body goes too.
    void releaseInput();

private:
    int m_requestId;
    int m_maximumValues = ZarkJson::AnyNumber;
    mutable QVariant m_postData;
    mutable QHash<QString, QString> m_serverData;
    mutable bool m_postDataParsed = false;
    mutable bool m_serverDataParsed = false;
};
