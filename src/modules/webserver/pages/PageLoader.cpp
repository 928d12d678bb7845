#include "PageLoader.h"

#include <QDir>
#include <QFile>

#include <algorithm>
#include <cerrno>

#include <unistd.h>

#include "FileVersion.h"
#include "LocalFile.h"
#include "PageParser.h"
#include "WebserverLog.h"

namespace {

bool isCurrent(const QVector<PageLoader::File>& files)
{
    return std::all_of(files.begin(), files.end(), [](const PageLoader::File& file) {
        struct stat status = {};
        return stat(file.name.constData(), &status) == 0 && isSameVersion(status, file.status);
    });
}

// False when it is longer than that, or cannot be read.
bool readAll(int descriptor, int maximum, QByteArray* content)
{
    content->resize(maximum + 1);
    int size = 0;
    while (size <= maximum) {
        const ssize_t length = ::read(descriptor, content->data() + size, static_cast<size_t>(maximum + 1 - size));
        if (length < 0 && errno == EINTR)
            continue;
        if (length < 0)
            return false;
        if (length == 0)
            break;
        size += static_cast<int>(length);
    }
    content->resize(size);
    content->squeeze();
    return size <= maximum;
}

// About as many bytes as an entry takes.
int costOf(const QByteArray& name, const Page& page, const QVector<PageLoader::File>& files)
{
    const auto commands = page.commands.size() * static_cast<int>(sizeof(PageCommand));
    return 1024 + name.size() + page.bytes + commands + files.size() * static_cast<int>(sizeof(PageLoader::File));
}

/// Puts a page together from its file and those that it includes.
class PageBuilder {
public:
    explicit PageBuilder(const QString& documentRoot) : m_root(QDir(documentRoot).canonicalPath()) { }

    /// Appends the file. False when outcome() is not Loaded.
    bool append(const QByteArray& name);

    PageLoader::Outcome outcome() const { return m_outcome; }
    const PageFault& fault() const { return m_fault; }
    const Page& page() const { return m_page; }
    const QVector<PageLoader::File>& files() const { return m_files; }

private:
    bool read(const QByteArray& name, QByteArray* text);
    bool appendParsed(const QVector<PageCommand>& parsed);
    bool include(const PageCommand& command);
    QByteArray includedName(const QString& file) const;
    bool isInside(const QString& path) const;
    bool fail(PageLoader::Outcome outcome);
    bool fail(int line, int column, const QString& text);

    QString m_root; ///< Canonical; empty when there is none.
    Page m_page;
    QVector<PageLoader::File> m_files;
    QStringList m_stack; ///< Canonical names, from the page down to what is being included.
    PageLoader::Outcome m_outcome = PageLoader::Loaded;
    PageFault m_fault;
};

bool PageBuilder::append(const QByteArray& name)
{
    QByteArray text;
    if (!read(name, &text))
        return false;
    PageParser parser(text);
    QVector<PageCommand> parsed;
    if (!parser.parse(&parsed))
        return fail(parser.fault().line, parser.fault().column, parser.fault().text);
    m_page.bytes += text.size();
    if (m_page.bytes > PageLoader::MaximumPageBytes || m_files.size() > PageLoader::MaximumFiles)
        return fail(1, 1, QStringLiteral("the page and what it includes are too long"));
    if (!appendParsed(parsed))
        return false;
    m_stack.removeLast();
    return true;
}

bool PageBuilder::read(const QByteArray& name, QByteArray* text)
{
    const LocalFile local(name);
    const QString canonical = QFile::decodeName(local.canonicalPath());
    if (local.kind() != LocalFile::Regular || !isInside(canonical))
        return fail(PageLoader::Missing);
    if (local.descriptor() < 0)
        return fail(PageLoader::Unreadable);
    const bool isWithin = m_stack.contains(canonical);
    m_stack.append(canonical);
    m_files.append({ name, local.status() });
    if (isWithin)
        return fail(1, 1, QStringLiteral("the file includes itself"));
    if (!readAll(local.descriptor(), PageLoader::MaximumFileBytes, text))
        return fail(1, 1, QStringLiteral("the file cannot be read, or is longer than 1 MiB"));
    return true;
}

bool PageBuilder::appendParsed(const QVector<PageCommand>& parsed)
{
    QVector<int> moved; // Where each command is now: what is included comes between.
    for (const PageCommand& command : parsed) {
        moved.append(m_page.commands.size());
        if (command.kind != PageCommand::Include)
            m_page.commands.append(command);
        else if (!include(command))
            return false;
    }
    for (int i = 0; i < parsed.size(); ++i) {
        if (parsed[i].target >= 0)
            m_page.commands[moved[i]].target = moved[parsed[i].target];
    }
    return true;
}

bool PageBuilder::include(const PageCommand& command)
{
    const QString file = command.attribute("file").literal();
    if (m_stack.size() > PageLoader::MaximumDepth)
        return fail(command.line, command.column, QStringLiteral("files include each other too deep"));
    if (append(includedName(file)))
        return true;
    if (m_outcome == PageLoader::Faulty)
        return false;
    return fail(command.line, command.column, QStringLiteral("there is no file \"%1\" to include").arg(file));
}

QByteArray PageBuilder::includedName(const QString& file) const
{
    const QString directory =
        file.startsWith(QLatin1Char('/')) ? m_root : QFileInfo(m_stack.constLast()).absolutePath();
    return QFile::encodeName(directory + QLatin1Char('/') + file);
}

bool PageBuilder::isInside(const QString& path) const
{
    return !m_root.isEmpty() && path.startsWith(m_root == QLatin1String("/") ? m_root : m_root + QLatin1Char('/'));
}

bool PageBuilder::fail(PageLoader::Outcome outcome)
{
    m_outcome = outcome;
    return false;
}

bool PageBuilder::fail(int line, int column, const QString& text)
{
    m_fault = { m_stack.constLast(), line, column, text };
    return fail(PageLoader::Faulty);
}

} // namespace

PageLoader::Result PageLoader::load(const QString& path)
{
    dbglog_scopedFunction(webserverLog());
    // One name for what has many in URLs: as often as it is asked for otherwise, it would be kept.
    const QByteArray name = QFile::encodeName(QDir::cleanPath(m_documentRoot + QLatin1Char('/') + path));
    const Entry* known = m_pages.object(name);
    if (known && isCurrent(known->files))
        return { Loaded, known->page, {} };
    m_pages.remove(name);
    PageBuilder builder(m_documentRoot);
    // Without a root there is no name either: the working directory is not meant.
    if (m_documentRoot.isEmpty() || !builder.append(name))
        return { m_documentRoot.isEmpty() ? Missing : builder.outcome(), {}, builder.fault() };
    const auto page = QSharedPointer<const Page>::create(builder.page());
    m_pages.insert(name, new Entry{ page, builder.files() }, costOf(name, *page, builder.files()));
    return { Loaded, page, {} };
}
