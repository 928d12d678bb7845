#pragma once

#include <QIODevice>
#include <QObject>
#include <QString>
#include <QTextStream>

#include <memory>

class Request;

/// Answers one exchange and lives no longer than its request. Made by a ResponderFactory, run by a ResponderHandler.
class Responder : public QObject {
    Q_OBJECT
public:
    /// The request is not owned.
    Responder(Request& request, const QString& documentRoot, QObject* parent);

    /// Does the work, and sees to it that finished() is emitted once, now or later.
    virtual void respond() = 0;
    /// Whether respond() waits for something. Nothing that a ResponderHandler runs may.
    virtual bool respondWillBlock() { return true; }
    /// For responders that finish later and so need the id.
    virtual void setRequestId(int id);

    /// `in` holds the request's body, `out` takes the answer's. Not owned. Without them, a responder has devices of its
    /// own, made when first asked for: an empty one, and a ServerMessageDevice. Most set a whole body and need neither.
    void setIODevices(QIODevice* in, QIODevice* out);
    /// Lets the answer go: what was streamed is the whole body.
    void complete();
    void setHeader(const QString& name, const QString& value);
    const QString& documentRoot() const { return m_documentRoot; }
    void setDocumentRoot(const QString& documentRoot) { m_documentRoot = documentRoot; }
    Request& request() const { return m_request; }

Q_SIGNALS:
    void finished(int requestId);

protected:
    // All made when first asked for: each costs as much as a small answer.
    QIODevice* inputDevice();
    QIODevice* outputDevice(); ///< Asked for, it makes the answer a streamed one.
    QTextStream& input();
    QTextStream& output();

private:
    Request& m_request;
    QIODevice* m_inputDevice = nullptr;
    QIODevice* m_outputDevice = nullptr;
    std::unique_ptr<QIODevice> m_ownInput;
    std::unique_ptr<QIODevice> m_ownOutput;
    std::unique_ptr<QTextStream> m_input;
    std::unique_ptr<QTextStream> m_output;
    QString m_documentRoot;
};
