#include "CommandLine.h"
#include "Commands.h"

namespace {

const int Any = 1000;

} // namespace

const QList<OptionSyntax>& optionTable()
{
    using Kind = OptionSyntax;
    static const QList<OptionSyntax> table{
        { "url", 'u', Kind::Text, "URL", "The device; several times for several. http://localhost:8080 by default." },
        { "urls", 0, Kind::File, "FILE", "A device's URL a line; # begins a remark, - is standard input." },
        { "profile", 'p', Kind::Text, "NAME", "The device, user and password that login kept; several for several." },
        { "user", 0, Kind::Text, "NAME", "Sign requests as this user." },
        { "password-file", 0, Kind::File, "FILE", "The first line is the password; - is standard input." },
        { "empty-password", 0, Kind::Flag, nullptr, "The user's password is empty." },
        { "ca", 0, Kind::File, "FILE", "Trust this certificate authority (PEM) as well." },
        { "timeout", 0, Kind::Number, "SECONDS", "To connect, and without a byte; 10 and 60 by default." },
        { "output", 'o', Kind::Choice, "table|json|jsonl", "The form of what is printed." },
        { "help", 'h', Kind::Flag, nullptr, "What a command takes." },
        { "version", 0, Kind::Flag, nullptr, "The version of zarkctl." },
        { "raw", 'r', Kind::Flag, nullptr, "Print the bare value, a line each." },
        { "roles", 0, Kind::Text, "LIST", "The roles to read, joined by commas; @all for every role." },
        { "depth", 0, Kind::Number, "N", "So many levels; all by default." },
        { "from", 0, Kind::Number, "N", "The first row, counted from 0." },
        { "to", 0, Kind::Number, "N", "The last row, inclusive." },
        { "dry-run", 'n', Kind::Flag, nullptr, "Check and show, and change nothing." },
        { "literal", 0, Kind::Flag, nullptr, "Take @, - and JSON in the value as plain text." },
        { "rows", 0, Kind::Flag, nullptr, "Changes of a list's rows too." },
        { "count", 0, Kind::Number, "N", "Stop after so many events." },
        { "new-password-file", 0, Kind::File, "FILE", "The first line is the new password; - is standard input." },
        { "fingerprint", 0, Kind::Text, "SHA256", "Trust a certificate with this fingerprint without asking." },
        { "explain", 0, Kind::Text, "HEADER", "Say what is wrong with this Authorization header." },
        { "file", 'f', Kind::File, "FILE", "Write into this file, replaced as a whole." },
    };
    return table;
}

const QByteArrayList& commonOptions()
{
    static const QByteArrayList names{ "url", "urls", "profile", "user", "password-file", "empty-password", "ca",
        "timeout", "output", "help", "version" };
    return names;
}

const QList<CommandSyntax>& commandTable()
{
    using C = CommandSyntax;
    static const QList<CommandSyntax> table{
        { "ls", "[PATH...]", 0, Any, C::Path, { "roles" }, C::Many, runLs, "The nodes in a container",
            "Without a path the tree's roots; of a node that is no container the node itself. In a path * stands for a "
            "part\n"
            "of a name and ** for any number of levels; \"demo:\" is everything of one worker." },
        { "tree", "[PATH]", 0, 1, C::Path, { "depth" }, C::Many, runTree, "Everything below a container, with values",
            "Secrets are not shown." },
        { "get", "PATH...", 1, Any, C::Path, { "raw", "roles" }, C::Many, runGet, "Roles of nodes",
            "title and value unless --roles names others. With -r the bare value: a text as it is, all else as JSON.\n"
            "Several devices stand side by side." },
        { "set", "PATH VALUE", 2, 2, C::PathAndValue, { "dry-run", "literal" }, C::Many, runSet, "Set a value",
            "VALUE is read as the node's own type: a text as it is, a number, true or false, JSON for the rest.\n"
            "@FILE is what is in a file, - what comes on standard input. -5 needs no --.\n"
            "A value that is signed over plain HTTP travels encrypted." },
        { "call", "PATH [ARGUMENT]", 1, 2, C::PathAndValue, { "literal" }, C::Many, runCall, "Run a command",
            "ARGUMENT is JSON, and otherwise a text; @FILE and - as for set." },
        { "rows", "PATH", 1, 1, C::Path, { "roles", "from", "to" }, C::Many, runRows, "Rows of a list",
            "All of one version of the list." },
        { "watch", "PATH...", 1, Any, C::Path, { "rows", "count" }, C::Followed, runWatch, "Follow nodes",
            "The present value first, then each change, until the reader of the output goes. When the device cannot "
            "be\n"
            "reached it says so and tries again. With -o json and jsonl an event a line." },
        { "upload", "FILE", 1, 1, C::FileName, {}, C::Many, runUpload, "Send a firmware image",
            "With its SHA-256, which the device checks." },
        { "stream", "PATH", 1, 1, C::Path, {}, C::One, runStream, "The bytes of a stream, to standard output",
            "Until the stream ends, or its reader." },
        { "login", "[PROFILE]", 0, 1, C::None, {}, C::One, runLogin, "Check a password and keep it in a profile",
            "The profile, \"default\" if none is named, is a file that only you can read. It keeps URL, user, password "
            "and\n"
            "authority; \"default\" is used when no device is named." },
        { "logout", "[PROFILE]", 0, 1, C::None, {}, C::Local, runLogout, "Forget a profile", "" },
        { "passwd", "", 0, 0, C::None, { "new-password-file" }, C::One, runPasswd, "Change the user's password",
            "Asks for the new one twice. Both travel encrypted. The device's first password: --empty-password." },
        { "cert", "show|trust|verify", 1, 1, C::Word, { "fingerprint" }, C::One, runCert, "The device's certificate",
            "show prints what the device shows of itself; trust keeps it, or the authority of --ca,\n"
            "for later commands, after a question; verify checks that it is trusted, for this name and today." },
        { "sign", "URI [BODY]", 1, 2, C::None, { "explain" }, C::One, runSign, "A signed request as a curl line",
            "URI is whole, or a path with its query on the device; with BODY (text, @FILE or -) it is a POST.\n"
            "--explain takes the Authorization header that a device refused and says what is wrong with it." },
        { "dump", "[PATH...]", 0, Any, C::Path, {}, C::One, runDump, "The values of a subtree, as JSON",
            "Without nodes that cannot be set, and without secrets and the certificate that belongs to one. The same "
            "values\n"
            "give the same bytes." },
        { "diff", "FILE | [PATH...]", 0, Any, C::FileName, {}, C::Two, runDiff,
            "What differs from a dump, or between devices",
            "With the name of a file, what differs between it and each device; without, between two devices. The exit "
            "status\n"
            "is 1 when something does." },
        { "restore", "FILE", 1, 1, C::FileName, { "dry-run" }, C::Many, runRestore, "Set what a dump holds",
            "Every value is checked before the first is set; when one is refused, those before it are set back." },
        { "metrics", "[PATH...]", 0, Any, C::Path, { "file" }, C::Many, runMetrics, "Numeric nodes in OpenMetrics text",
            "For a collector of text files (--file) or an exporter. zark_up tells which devices answered.",
            printMetrics },
        { "completion", "bash|zsh", 1, 1, C::Word, {}, C::Local, runCompletion, "The completion for a shell",
            "bash: source <(zarkctl completion bash). zsh: zarkctl completion zsh >\"${fpath[1]}/_zarkctl\"." },
        { "version", "", 0, 0, C::None, {}, C::Local, runVersion, "The version of zarkctl", "" },
        { "help", "[COMMAND]", 0, 1, C::Command, {}, C::Local, runHelp, "What a command takes", "" },
    };
    return table;
}
