#include "PageResponder.h"

#include <algorithm>

#include "CMRoot.h"
#include "LegacyPathHelper.h"
#include "MimeTypes.h"
#include "PageValue.h"
#include "Request.h"
#include "SameOrigin.h"
#include "WebserverLog.h"

namespace {

constexpr const char* ForbiddenText = "Forbidden";

QStringList withPermission(const QStringList& roles)
{
    return roles + QStringList{ ZarkRoles::Permission() };
}

QString textOf(const CMError& error)
{
    return error.message().toString();
}

QHash<QString, QString> fieldsOf(const QueryItems& query)
{
    QHash<QString, QString> fields;
    for (const auto& item : query.all()) {
        if (!fields.contains(item.first))
            fields.insert(item.first, item.second);
    }
    return fields;
}

} // namespace

void PageResponder::respond()
{
    dbglog_scopedFunction(webserverLog());
    dbglog_debug(webserverLog(), "PageResponder: request " << requestId() << " '" << request().fullUri() << "'");
    if (!isGet() && !isPost() && !request().isMethod("HEAD"))
        return respondInvalidMethod("GET, HEAD, POST");
    identify();
    if (isAcceptable())
        load(takeInput());
}

// False after the error was answered.
bool PageResponder::isAcceptable()
{
    if (caller().isWrong())
        return canRespond(QString::fromUtf8(request().path()), ApiRequestType::GetData, ZarkPermission::Default);
    // A browser sends the form of any page in the world, from wherever its user is.
    if (!isPost() || isSameOrigin(request().header("Origin"), request().header("Referer"), request().header("Host")))
        return true;
    dbglog_warn(webserverLog(), "A form of another page for " << request().fullUri());
    refuse(SOUP_STATUS_FORBIDDEN, QStringLiteral("Forms are taken from pages of this server only."));
    return false;
}

PageRun::Input PageResponder::takeInput()
{
    PageRun::Input input;
    input.isPost = isPost();
    input.query = fieldsOf(request().query());
    if (request().requestContentType() != "application/x-www-form-urlencoded")
        return input;
    const QVariantHash form = takePostData().toHash();
    for (auto field = form.cbegin(); field != form.cend(); ++field)
        input.form.insert(field.key(), field.value().toString());
    return input;
}

void PageResponder::load(const PageRun::Input& input)
{
    const PageLoader::Result result = m_loader->load(request().url().path(QUrl::FullyDecoded));
    const PageFault& fault = result.fault;
    switch (result.outcome) {
    case PageLoader::Loaded:
        request().releaseInput();
        m_run = std::make_unique<PageRun>(result.page, input);
        return run();
    case PageLoader::Missing:
        dbglog_warn(webserverLog(), "PageResponder: no such page: " << request().fullUri());
        return refuse(
            SOUP_STATUS_NOT_FOUND, QStringLiteral("The requested url '%1' was not found.").arg(request().fullUri()));
    case PageLoader::Unreadable:
        dbglog_warn(webserverLog(), "PageResponder: the page cannot be read: " << request().fullUri());
        return refuse(SOUP_STATUS_FORBIDDEN,
            QStringLiteral("You don't have permission to access '%1'.").arg(request().fullUri()));
    case PageLoader::Faulty:
        dbglog_error(webserverLog(), fault.file << ':' << fault.line << ':' << fault.column << ": " << fault.text);
        return refuse(SOUP_STATUS_INTERNAL_SERVER_ERROR, QStringLiteral("The page cannot be shown."));
    }
}

void PageResponder::run()
{
    switch (m_run->run()) {
    case PageRun::Finished:
        return finish();
    case PageRun::Reading: {
        const QVector<PageRead> reads = m_run->reads();
        m_awaited = reads.size();
        for (const PageRead& read : reads)
            this->read(read);
        return;
    }
    case PageRun::Setting:
        return write();
    case PageRun::Paused:
        // Others have their turn.
        QMetaObject::invokeMethod(
            this, [this] { run(); }, Qt::QueuedConnection);
        return;
    case PageRun::TooLong:
        dbglog_error(webserverLog(), "The page is longer than it may be: " << request().fullUri());
        return refuse(SOUP_STATUS_INTERNAL_SERVER_ERROR, QStringLiteral("The page cannot be shown."));
    }
}

void PageResponder::finish()
{
    releaseBrake();
    request().setNoCache();
    request().setHeader(QByteArrayLiteral("Content-Security-Policy"), QByteArrayLiteral("frame-ancestors 'self'"));
    // The form is gone from the browser's history: nobody sends it again by reloading.
    if (m_run->hasWritten()) {
        request().setHeader(QByteArrayLiteral("Location"), request().fullUri().toUtf8());
        return answer(SOUP_STATUS_SEE_OTHER, {}, MimeTypes::Text::plain());
    }
    answer(SOUP_STATUS_OK, m_run->output(), QStringLiteral("text/html; charset=utf-8"));
}

void PageResponder::refuse(int status, const QString& text)
{
    answer(status, text.toUtf8(), MimeTypes::Text::plain());
}

void PageResponder::read(const PageRead& read)
{
    if (read.isRows())
        readRows(read);
    else
        readNode(read);
}

void PageResponder::readNode(const PageRead& read)
{
    CMReply<QList<QVariant>> reply;
    reply.onFinished(this, [this, read](const QList<QVariant>& values, const CMError& error) {
        take(read, answerOfNode(read, values, error));
    });
    CMRoot()->getData(LegacyPathHelper::resolve(read.path), withPermission(read.roles), reply);
}

void PageResponder::readRows(const PageRead& read)
{
    CMReply<ZarkRowsRoles> reply;
    reply.onFinished(this,
        [this, read](const ZarkRowsRoles& rows, const CMError& error) { take(read, answerOfRows(read, rows, error)); });
    const qint64 last = std::min<qint64>(read.to, qint64(read.from) + configuration().maximumRows() - 1);
    CMRoot()->getRows(
        LegacyPathHelper::resolve(read.path), read.from, static_cast<int>(last), 0, withPermission(read.roles), reply);
}

PageAnswer PageResponder::answerOfNode(const PageRead& read, const QList<QVariant>& values, const CMError& error)
{
    if (!error.isEmpty())
        return { textOf(error), {}, 0 };
    const ZarkPermission::Enum permission = ZarkPermission::fromString(values.value(values.size() - 1).toString());
    if (!canRespond(read.path, ApiRequestType::GetData, permission, false))
        return { QString::fromLatin1(ForbiddenText), {}, 0 };
    return { {}, { { textOfRole(values.value(0)) } }, 1 };
}

PageAnswer PageResponder::answerOfRows(const PageRead& read, const ZarkRowsRoles& rows, const CMError& error)
{
    if (!error.isEmpty())
        return { textOf(error), {}, 0 };
    if (!canRespond(read.path, ApiRequestType::GetRows, rows.roles().permission(), false))
        return { QString::fromLatin1(ForbiddenText), {}, 0 };
    ZarkRowsRoles shown = rows;
    PageAnswer answer{ {}, {}, shown.rowsCount() };
    if (withholdRows(read.path, withPermission(read.roles), &shown))
        answer.notice = QString::fromLatin1(ForbiddenText);
    for (const QVariantList& row : shown.rows()) {
        QStringList texts;
        std::transform(row.begin(), row.end(), std::back_inserter(texts), textOfRole);
        answer.rows.append(texts);
    }
    return answer;
}

void PageResponder::take(const PageRead& read, const PageAnswer& answer)
{
    m_run->answer(read, answer);
    if (--m_awaited == 0)
        run();
}

// The node's type comes with its permission; it is shown to nobody who may not set it.
void PageResponder::write()
{
    CMReply<QList<QVariant>> reply;
    reply.onFinished(this, [this](const QList<QVariant>& values, const CMError& error) { writeTyped(values, error); });
    CMRoot()->getData(
        LegacyPathHelper::resolve(m_run->write().path), { ZarkRoles::Value(), ZarkRoles::Permission() }, reply);
}

void PageResponder::writeTyped(const QList<QVariant>& values, const CMError& error)
{
    const PageRun::Write& write = m_run->write();
    const ZarkPermission::Enum permission =
        error.isEmpty() ? ZarkPermission::fromString(values.value(1).toString()) : ZarkPermission::Default;
    if (!canRespond(write.path, ApiRequestType::SetData, permission, false))
        return goOn(QString::fromLatin1(ForbiddenText));
    QString problem = textOf(error);
    const QVariant value = problem.isEmpty() ? valueOfText(write.text, values.value(0), &problem) : QVariant();
    if (!problem.isEmpty())
        return goOn(problem);
    CMReply<QVariant> reply;
    reply.onFinished(this, [this](const QVariant&, const CMError& failure) { goOn(textOf(failure)); });
    CMRoot()->invoke(LegacyPathHelper::resolve(write.path), value, ZarkRoles::Value(), reply);
}

void PageResponder::goOn(const QString& error)
{
    m_run->setDone(error);
    run();
}
