#pragma once

#include <QObject>
#include <QString>

class Message;

/// Answers the requests of one URL prefix, at once or later; by itself with 404 and a text.
class Handler : public QObject {
    Q_OBJECT
public:
    Handler(const QString& documentRoot, QObject* parent);

    virtual void handle(Message* message);

    const QString& documentRoot() const;
    void setDocumentRoot(const QString& documentRoot);

private:
    QString m_documentRoot;
};
