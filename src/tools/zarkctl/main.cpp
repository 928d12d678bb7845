#include <clocale>
#include <csignal>

#include "Completion.h"
#include "Fleet.h"
#include "Input.h"
#include "Session.h"
#include "Targets.h"

namespace {

ExitStatus runLocally(const Invocation& invocation, Output* output)
{
    Session session{ invocation, {}, nullptr, output, {} };
    const ExitStatus status = invocation.command->run(session);
    output->print({ session.report });
    return status;
}

ExitStatus run(const QStringList& words)
{
    const Invocation invocation = Invocation::parse(words);
    Output output(invocation);
    if (invocation.command->devices == CommandSyntax::Local)
        return runLocally(invocation, &output);
    return runOnDevices(invocation, targetsOf(invocation), &output);
}

} // namespace

int main(int argc, char** argv)
{
    std::signal(SIGPIPE, SIG_IGN); // A closed pipe is an error of the write.
    std::setlocale(LC_CTYPE, "C.UTF-8"); // For the widths of characters: what is printed is UTF-8 everywhere.
    curl_global_init(CURL_GLOBAL_DEFAULT);
    QStringList words;
    ExitStatus status = ExitOk;
    try {
        for (int i = 1; i < argc; ++i)
            words.append(textOf(argv[i], QStringLiteral("an argument")));
        if (words.value(0) == QLatin1String("__complete"))
            for (const QByteArray& word : completionsOf(words.mid(1)))
                std::puts(word.constData());
        else
            status = run(words);
    } catch (const Failure& failure) {
        status = failure.status;
        complain(failure.text);
    }
    curl_global_cleanup();
    return status;
}
