#include "Password.h"

#include <QFile>

#include <csignal>
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include "CommandLine.h"
#include "Failure.h"
#include "Input.h"

namespace {

int terminal = -1;
termios shown{};

/// Puts the echo back before the signal ends the process.
void onSignal(int signal)
{
    tcsetattr(terminal, TCSANOW, &shown);
    ::signal(signal, SIG_DFL);
    ::raise(signal);
}

[[noreturn]] void refuse(const QString& text)
{
    throw Failure{ ExitUsage, text };
}

QString withoutLineEnd(QByteArray line)
{
    while (line.endsWith('\n') || line.endsWith('\r'))
        line.chop(1);
    return textOf(line, QStringLiteral("the password"));
}

QString firstLineOf(const QString& fileName)
{
    QFile file(fileName);
    const bool standardInput = fileName == QLatin1String("-");
    // Not a byte beyond the line: another password may follow.
    if (!(standardInput ? file.open(stdin, QIODevice::ReadOnly | QIODevice::Unbuffered)
                        : file.open(QIODevice::ReadOnly)))
        refuse(fileName + QStringLiteral(": ") + file.errorString());
    const QString password = withoutLineEnd(file.readLine());
    if (password.isEmpty())
        refuse(fileName + QStringLiteral(": the first line is empty; --empty-password if that is the password"));
    return password;
}

/// One line from the terminal itself, whatever standard input is.
QByteArray readLine(const QString& question, bool echo, const QString& instead)
{
    terminal = ::open("/dev/tty", O_RDWR | O_CLOEXEC);
    if (terminal < 0 || tcgetattr(terminal, &shown) != 0)
        refuse(QStringLiteral("there is no terminal to ask on; ") + instead);
    termios unseen = shown;
    if (!echo)
        unseen.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    const QByteArray text = question.toUtf8();
    (void)!::write(terminal, text.constData(), size_t(text.size()));
    for (const int signal : { SIGINT, SIGTERM, SIGHUP, SIGQUIT })
        ::signal(signal, onSignal);
    tcsetattr(terminal, TCSAFLUSH, &unseen);
    QByteArray line;
    char c = 0;
    while (::read(terminal, &c, 1) == 1 && c != '\n')
        line += c;
    tcsetattr(terminal, TCSAFLUSH, &shown);
    for (const int signal : { SIGINT, SIGTERM, SIGHUP, SIGQUIT })
        ::signal(signal, SIG_DFL);
    if (!echo)
        (void)!::write(terminal, "\n", 1);
    ::close(terminal);
    return line;
}

QString ask(const QString& question, const char* option)
{
    const QString instead =
        QStringLiteral("--%1 FILE names a password, - is standard input").arg(QLatin1String(option));
    const QString password = withoutLineEnd(readLine(question, false, instead));
    if (password.isEmpty())
        refuse(QStringLiteral("no password given; --empty-password if it is empty"));
    return password;
}

} // namespace

QString passwordFor(const QString& user, const Invocation& invocation)
{
    if (invocation.has("empty-password"))
        return {};
    if (invocation.has("password-file"))
        return firstLineOf(invocation.value("password-file"));
    return ask(QStringLiteral("Password of %1: ").arg(user), "password-file");
}

QString newPassword(const Invocation& invocation)
{
    if (invocation.has("new-password-file"))
        return firstLineOf(invocation.value("new-password-file"));
    const QString first = ask(QStringLiteral("New password: "), "new-password-file");
    if (ask(QStringLiteral("Once more: "), "new-password-file") != first)
        refuse(QStringLiteral("the two are not the same; nothing was changed"));
    return first;
}

bool isConfirmed(const QString& question, const QString& instead)
{
    return readLine(question + QStringLiteral(" [y/N] "), true, instead).trimmed().toLower() == "y";
}
