#pragma once

#include <memory>

#include "PageLoader.h"
#include "PageRun.h"
#include "SignedResponder.h"

class CMPath;

/// *.fcgi: a template page (docs/pages.md), with what its commands ask of the framework in their place.
///
/// identify → form and query → load → run: reads that go out together, writes one by one → the page, or 303 to itself
/// after a form was written. A node that the caller may not read, or set, is an error of that command alone.
class PageResponder : public SignedResponder {
    Q_OBJECT
public:
    PageResponder(Request& request, const QString& documentRoot, const QSharedPointer<UserDatabase>& userDatabase,
        const QSharedPointer<ResponderConfiguration>& configuration, const QSharedPointer<PageLoader>& loader,
        QObject* parent)
        : SignedResponder(request, documentRoot, userDatabase, configuration, parent), m_loader(loader)
    {
    }

    void respond() override;

private:
    bool isAcceptable();
    PageRun::Input takeInput();
    void load(const PageRun::Input& input);
    void run();
    void finish();
    void refuse(int status, const QString& text);

    void read(const PageRead& read);
    void readNode(const PageRead& read);
    void readRows(const PageRead& read);
    PageAnswer answerOfNode(const PageRead& read, const QList<QVariant>& values, const CMError& error);
    PageAnswer answerOfRows(const PageRead& read, const ZarkRowsRoles& rows, const CMError& error);
    void take(const PageRead& read, const PageAnswer& answer);

    void write();
    void writeTyped(const QList<QVariant>& values, const CMError& error);
    void goOn(const QString& error);

    QSharedPointer<PageLoader> m_loader;
    std::unique_ptr<PageRun> m_run;
    int m_awaited = 0; ///< Answers to reads.
};
