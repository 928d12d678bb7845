#pragma once

#include <QList>
#include <QPair>
#include <QRegExp>

#include "Handler.h"

/// Passes each request to the first of its handlers whose predicate says yes, in the order in which they were added.
/// Owns the handlers and the predicates. A request that nobody takes is left as it is.
class MatchHandler : public Handler {
    Q_OBJECT
public:
    /// Says yes to everything.
    class MessagePredicate {
    public:
        virtual bool operator()(const Message* message) const;
        virtual ~MessagePredicate() = default;
    };

    MatchHandler(const QString& documentRoot, QObject* parent) : Handler(documentRoot, parent) { }
    ~MatchHandler() override;

    void addHandler(MessagePredicate* predicate, Handler* handler);
    /// `expression` must match the whole decoded path, without the query.
    void addHandler(const QRegExp& expression, Handler* handler);
    /// The same with a Unix wildcard, whose "*" also crosses "/".
    void addHandler(const QString& wildcard, Handler* handler);
    /// The default; whatever is added after it is never asked.
    void addHandler(Handler* handler);

    void handle(Message* message) override;

private:
    void append(MessagePredicate* predicate, Handler* handler);

    QList<QPair<MessagePredicate*, Handler*>> m_handlers;
};

/// Says yes when the expression matches the whole decoded path of the URL.
class RegExpMessagePredicate : public MatchHandler::MessagePredicate {
public:
    explicit RegExpMessagePredicate(const QRegExp& expression) : m_expression(expression) { }

    bool operator()(const Message* message) const override;

private:
    QRegExp m_expression;
};
