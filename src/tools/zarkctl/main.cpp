#include <cstdio>

#include <QCoreApplication>
#include <QFile>
#include <QSslConfiguration>
#include <termios.h>
#include <unistd.h>

#include "Commands.h"

namespace {

void print(const QByteArray& line)
{
    std::fputs((line + '\n').constData(), stdout);
    std::fflush(stdout);
}

void complain(const QString& text)
{
    std::fprintf(stderr, "zarkctl: %s\n", text.toLocal8Bit().constData());
}

/// The first line of a file; nothing when it cannot be read.
std::optional<QString> firstLine(QFile* file)
{
    if (!file->isOpen() && !file->open(QIODevice::ReadOnly))
        return {};
    QByteArray line = file->readLine();
    while (line.endsWith('\n') || line.endsWith('\r'))
        line.chop(1);
    return QString::fromUtf8(line);
}

std::optional<QString> passwordFrom(const QString& fileName)
{
    QFile file(fileName);
    std::optional<QString> password = firstLine(&file);
    if (!password)
        complain(fileName + QLatin1String(": ") + file.errorString());
    return password;
}

/// From standard input, unseen where that is a terminal.
std::optional<QString> typedPassword()
{
    termios seen{};
    const bool terminal = tcgetattr(STDIN_FILENO, &seen) == 0;
    if (terminal) {
        std::fputs("New password: ", stderr);
        termios unseen = seen;
        unseen.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &unseen);
    }
    QFile input;
    input.open(stdin, QIODevice::ReadOnly);
    std::optional<QString> password = firstLine(&input);
    if (terminal) {
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &seen);
        std::fputc('\n', stderr);
    }
    return password;
}

bool trust(const QString& caFile)
{
    const QList<QSslCertificate> authorities = QSslCertificate::fromPath(caFile);
    if (authorities.isEmpty()) {
        complain(caFile + QLatin1String(": no certificate"));
        return false;
    }
    QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
    tls.addCaCertificates(authorities);
    QSslConfiguration::setDefaultConfiguration(tls);
    return true;
}

ExitStatus changePassword(Commands* commands, const Options& options, const QString& oldPassword)
{
    const std::optional<QString> newPassword =
        options.newPasswordFile.isEmpty() ? typedPassword() : passwordFrom(options.newPasswordFile);
    return newPassword ? commands->changePassword(options.user, oldPassword, *newPassword) : ExitUsage;
}

ExitStatus run(const Options& options)
{
    const std::optional<QString> password =
        options.passwordFile.isEmpty() ? QString() : passwordFrom(options.passwordFile);
    if (!password || (!options.caFile.isEmpty() && !trust(options.caFile)))
        return ExitUsage;
    std::optional<RequestSigner> signer;
    if (!options.user.isEmpty())
        signer.emplace(options.user, *password);
    ApiClient client(options.url, signer);
    Commands commands(&client, &print, &complain);
    switch (options.command) {
    case Options::Command::Get:
        return commands.get(options.paths.first(), options.roles, options.structure);
    case Options::Command::Rows:
        return commands.rows(options.paths.first(), options.roles, options.from, options.to);
    case Options::Command::Set:
        return commands.set(options.paths.first(), options.role, options.value);
    case Options::Command::Watch:
        return commands.watch(options.paths, options.rowEvents, options.count);
    case Options::Command::Passwd:
        return changePassword(&commands, options, *password);
    }
    return ExitUsage;
}

} // namespace

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    QString error;
    bool help = false;
    const std::optional<Options> options = Options::parse(QCoreApplication::arguments(), &error, &help);
    if (options)
        return run(*options);
    if (help)
        print(error.trimmed().toLocal8Bit());
    else
        complain(error.trimmed());
    return help ? ExitOk : ExitUsage;
}
