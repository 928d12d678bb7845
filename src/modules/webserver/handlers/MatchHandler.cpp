#include "MatchHandler.h"

#include <algorithm>

#include "Message.h"
#include "WebserverLog.h"

bool MatchHandler::MessagePredicate::operator()(const Message*) const
{
    dbglog_scopedFunction(webserverLog());
    return true;
}

bool RegExpMessagePredicate::operator()(const Message* message) const
{
    dbglog_scopedFunction(webserverLog());
    return m_expression.exactMatch(message->url().path(QUrl::FullyDecoded));
}

MatchHandler::~MatchHandler()
{
    dbglog_scopedFunction(webserverLog());
    for (const auto& entry : qAsConst(m_handlers))
        delete entry.first;
}

void MatchHandler::addHandler(MessagePredicate* predicate, Handler* handler)
{
    dbglog_scopedFunction(webserverLog());
    dbglog_debug(webserverLog(),
        "MatchHandler::addHandler: adding handler " << static_cast<const void*>(handler) << " for RequestPredicate");
    append(predicate, handler);
}

void MatchHandler::addHandler(const QRegExp& expression, Handler* handler)
{
    dbglog_scopedFunction(webserverLog());
    dbglog_debug(webserverLog(),
        "MatchHandler::addHandler: adding handler " << static_cast<const void*>(handler) << " for regexp match "
                                                    << expression.pattern());
    append(new RegExpMessagePredicate(expression), handler);
}

void MatchHandler::addHandler(const QString& wildcard, Handler* handler)
{
    dbglog_scopedFunction(webserverLog());
    dbglog_debug(webserverLog(),
        "MatchHandler::addHandler: adding handler " << static_cast<const void*>(handler) << " for wildcard match "
                                                    << wildcard);
    append(new RegExpMessagePredicate(QRegExp(wildcard, Qt::CaseSensitive, QRegExp::WildcardUnix)), handler);
}

void MatchHandler::addHandler(Handler* handler)
{
    dbglog_scopedFunction(webserverLog());
    dbglog_debug(
        webserverLog(), "MatchHandler::addHandler: adding default handler " << static_cast<const void*>(handler));
    append(new MessagePredicate, handler);
}

void MatchHandler::append(MessagePredicate* predicate, Handler* handler)
{
    handler->setParent(this);
    m_handlers.append({ predicate, handler });
}

void MatchHandler::handle(Message* message)
{
    dbglog_scopedFunction(webserverLog());
    // A copy: a handler may add others while it runs.
    const auto handlers = m_handlers;
    const auto found = std::find_if(
        handlers.cbegin(), handlers.cend(), [message](const auto& entry) { return (*entry.first)(message); });
    if (found == handlers.cend()) {
        dbglog_debug(webserverLog(), "MatchHandler::handle: no handler for request found!");
        return;
    }
    dbglog_debug(webserverLog(), "MatchHandler::handle: found handler " << static_cast<const void*>(found->second));
    found->second->handle(message);
}
