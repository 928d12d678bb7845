#include <QtTest>

#include "PageParser.h"
#include "PageRun.h"
#include "Rows.h"

namespace {

const QByteArray Get = "<!--#get path=\"x:<&'\"-->";
const QByteArray Got = "x:&lt;&amp;&#39;";
const QByteArray If = "<!--#if value=\"$query.on\" equals=\"1\"-->";
const QByteArray Listed = "<!--#rows path=\"l:l\" from=\"2\" count=\"2\"-->";

PageAnswer answerTo(const PageRead& read)
{
    if (read.path.startsWith("error:"))
        return { "<no>", {}, 0 };
    if (!read.isRows())
        return { {}, { { read.path } }, 1 };
    PageAnswer answer{ {}, {}, 5 };
    for (int row = read.from; row <= read.to; ++row) {
        QStringList texts;
        for (const QString& role : read.roles)
            texts.append(QString::number(row) + role);
        answer.rows.append(texts);
    }
    return answer;
}

QByteArray rendered(const QByteArray& text)
{
    auto page = QSharedPointer<Page>::create();
    PageParser parser(text);
    if (!parser.parse(&page->commands))
        return QByteArray::number(parser.fault().line) + ':' + QByteArray::number(parser.fault().column) + ": "
            + parser.fault().text.toUtf8();
    PageRun run(page, { false, { { "a", "<1>" } }, { { "on", "1" } } });
    for (PageRun::State state = run.run(); state != PageRun::Finished; state = run.run()) {
        if (state != PageRun::Reading)
            return "it does not only read";
        for (const PageRead& read : run.reads())
            run.answer(read, answerTo(read));
    }
    return run.output();
}

} // namespace

/// What a page's text becomes: the page, or the place of its first fault.
class PageParserTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    // Run with nodes whose value is their path, rows with two roles, and the form "a=<1>"; what is expected may be
    // "line:column:" and the beginning of what is wrong.
    void pages()
    {
        Rows<QByteArray, QByteArray> row;
        row("literals alone", "a <b c='d'> é <!-- e --> <!doctype f>", "a <b c='d'> é <!-- e --> <!doctype f>");
        row("text", "<p>" + Get + "</p>", "<p>" + Got + "</p>");
        row("title", "<title>" + Get + "</title>" + Get, "<title>" + Got + "</title>" + Got);
        row("attribute values", "<p a='" + Get + "' b=\"c" + Get + "\">", "<p a='" + Got + "' b=\"c" + Got + "\">");
        row("variables", "<!--#echo value=\"$$ $form.a$form.b $query.on$error.\"-->", "$ &lt;1&gt; 1.");
        row("control characters", QByteArray("<!--#echo value=\"a\tb\x01") + "c\"-->",
            "a&#9;b\xEF\xBF\xBD"
            "c");
        row("URLs",
            "<a href='<!--#echo value=\"java\tscript:x\"-->'><a href=\"<!--#echo value='HTTPS://x?javascript:'-->\">"
            "<a href='/<!--#echo value=\"x:y\"-->' title='<!--#echo value=\"x:y\"-->'>",
            "<a href='#'><a href=\"HTTPS://x?javascript:\"><a href='/x:y' title='x:y'>");
        row("if, else", If + "a<!--#else-->b<!--#endif--><!--#if path='y:y' equals='z'-->a<!--#else-->b<!--#endif-->",
            "ab");
        row("if inside a tag", "<p " + If + "c<!--#else-->d='e'<!--#endif--> f>" + Get, "<p c f>" + Got);
        row("an error",
            "<!--#get path=\"error:-->\"--><!--#if path='error:' equals=''-->a<!--#endif-->"
            "<p a='<!--#get path=\"error:\"-->'><!--#echo value=\"$error\"-->",
            "<!-- error: error:--&gt;: &lt;no&gt; --><!-- error: error:: &lt;no&gt; --><p a=''>&lt;no&gt;");
        row("rows",
            Listed
                + "[<!--#row role='value'-->|$row.a|<!--#echo value='$row.title'-->]<!--#endrows-->"
                  "<!--#echo value=\"$rows.from $rows.to $rows.count $rows.next $rows.previous\"-->",
            "[2value|$row.a|2title][3value|$row.a|3title]2 3 5 4 0");
        row("rows in rows",
            Listed + Listed
                + "<!--#row role='title'--><!--#endrows--><!--#echo value='$row.path'-->;"
                  "<!--#endrows-->",
            "2title3title2path;2title3title3path;");
        row("no such rows", "<!--#rows path='error:'-->a<!--#endrows-->b", "<!-- error: error:: &lt;no&gt; -->b");
        row("rows that are no number", "<!--#rows path='l:l' from='-1'-->a<!--#endrows-->b",
            "<!-- error: l:l: There is a number of rows that is none. -->b");
        row("nothing is set without a POST", "<!--#set path='y:y' value='1'-->a", "a");

        row("unknown command", "a\n é<!--#foo-->", "2:3: no such command");
        row("unknown attribute", "<!--#get path='a' b='c'-->", "1:19: no such attribute");
        row("attribute twice", "<!--#get path='a' path='c'-->", "1:19: the attribute \"path\" is there twice");
        row("attribute missing", "<!--#get role='a'-->", "1:1: the attribute \"path\" is missing");
        row("no blank between", "<!--#get path='a'role='b'-->", "1:18: expected a blank");
        row("value without quotes", "<!--#get path=a-->", "1:14: expected = and a value");
        row("value without an end", "<!--#get path='a-->", "1:14: the value has no end");
        row("command without an end", "<!--#else ", "1:11: expected an attribute");
        row("unknown variable", "<!--#echo value='$foo.a'-->", "1:16: no such variable");
        row("unclosed if", "a" + If, "1:2: this is never closed");
        row("stray else", Listed + "<!--#else-->", "1:43: there is no \"if\"");
        row("two elses", If + "<!--#else--><!--#else-->", "1:52: there is no \"if\"");
        row("crossed blocks", If + Listed + "<!--#endif-->", "1:82: there is nothing");
        row("stray row", "<!--#row role='a'-->", "1:1: there are no rows");
        row("stray row variable", "<!--#echo value='$row.a'-->", "1:1: there are no rows");
        row("both path and value", "<!--#if path='a' value='b' equals='c'-->", "1:1: either");
        row("no UTF-8", "a\xFF", "1:1: the page is not UTF-8");
        row("open at the end", "<p a='b", "1:8: the page ends");

        row("in a comment", "<!-- " + Get, "1:6: not inside a comment");
        row("in a comment that seems closed", "<!--!>" + Get, "1:7: not inside a comment");
        row("in a tag", "<p " + Get, "1:4: not inside a tag");
        row("as a tag's name", "<" + Get, "1:2: not inside a tag");
        row("without quotes", "<p a=" + Get, "1:6: not in an attribute value without");
        row("in a script", "<ScRiPt></scrip " + Get, "1:17: not inside a script");
        row("event handler", "<p onclick='" + Get, "1:13: not in an attribute whose");
        row("style", "<p style='" + Get, "1:11: not in an attribute whose");
        row("srcdoc", "<iframe srcdoc='" + Get, "1:17: not in an attribute whose");
        row("link", "<link href='/" + Get, "1:14: not in an attribute whose");
        row("script URL", "<a href='javascript:" + Get, "1:21: not in a URL that could act");
        row("within a scheme", "<a href='java" + Get, "1:14: not where it could become");
        row("before a colon", "<a href='" + Get + ":", "1:34: a \":\"");
        row("title of a drawing", "<svg></svg><svg><title>", "1:23: an element of this name");
        row("CDATA section", "<![CDATA[", "1:3: a CDATA section");
        row("a name put together", "<p " + If + "on<!--#endif-->click='", "1:58: a blank is missing");
        row("branch ends elsewhere", If + "<p><!--#else--><p <!--#endif-->", "1:58: the block does not end");
        row("rows end elsewhere", Listed + "<p <!--#endrows-->", "1:46: the block does not end");
        for (const auto& [page, expected] : row) {
            const QByteArray result = rendered(page);
            const bool isFault = expected.at(0) >= '1' && expected.at(0) <= '9';
            QCOMPARE(isFault ? result.left(expected.size()) : result, expected);
        }
    }

    // Reads of one stretch go out together, each once; a page cannot keep the event loop, nor memory.
    void bounds()
    {
        auto page = QSharedPointer<Page>::create();
        QVERIFY(PageParser("<!--#get path='a:a'--><!--#get path='b:b'--><!--#get path='a:a'-->" + If
            + "<!--#get path='c:c'--><!--#endif-->" + Listed + "<!--#get path='d:d'--><!--#endrows-->")
                    .parse(&page->commands));
        PageRun run(page, {});
        QCOMPARE(run.run(), PageRun::Reading);
        QCOMPARE(run.reads().size(), 2);

        auto endless = QSharedPointer<Page>::create();
        QVERIFY(PageParser(QByteArray("<!--#echo value='$query.long'-->").repeated(2000)).parse(&endless->commands));
        PageRun large(endless, { false, {}, { { "long", QString(10000, 'x') } } });
        PageRun::State state = large.run();
        for (; state == PageRun::Paused; state = large.run()) { }
        QCOMPARE(state, PageRun::TooLong);
        PageRun small(endless, {});
        QCOMPARE(small.run(), PageRun::Paused);
    }
};

QTEST_APPLESS_MAIN(PageParserTest)

#include "PageParserTest.moc"
