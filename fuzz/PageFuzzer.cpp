#include <cstdint>
#include <cstdlib>

#include "PageParser.h"
#include "PageRun.h"

namespace {

const QString Hostile = QStringLiteral("\"'<script>javascript:--><!--");

PageAnswer answerTo(const PageRead& read)
{
    if (read.path.contains(QLatin1Char('e')))
        return { Hostile, {}, 0 };
    QStringList texts;
    for (int i = 0; i < read.roles.size(); ++i)
        texts.append(Hostile);
    return { {}, { texts, texts }, 2 };
}

} // namespace

/// Whatever a page is, it is refused at a place that it has, or it runs to its end; and what it shows has brought no
/// tag with it, nor a way out of where it stands.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray text(reinterpret_cast<const char*>(data), static_cast<int>(size));
    auto page = QSharedPointer<Page>::create();
    PageParser parser(text);
    if (!parser.parse(&page->commands)) {
        const PageFault& fault = parser.fault();
        if (fault.isEmpty() || fault.line < 1 || fault.line > text.count('\n') + 1 || fault.column < 1)
            std::abort();
        return 0;
    }
    PageRun run(page, { true, { { QStringLiteral("a"), Hostile } }, { { QStringLiteral("a"), Hostile } } });
    for (PageRun::State state = run.run(); state != PageRun::Finished; state = run.run()) {
        if (state == PageRun::TooLong)
            return 0;
        if (state == PageRun::Setting)
            run.setDone(run.write().text);
        if (state != PageRun::Reading)
            continue;
        if (run.reads().isEmpty())
            std::abort();
        for (const PageRead& read : run.reads())
            run.answer(read, answerTo(read));
    }
    // The author's text may say so; what was put into it may not.
    if (!text.contains("<script>") && run.output().contains("<script>"))
        std::abort();
    return 0;
}
