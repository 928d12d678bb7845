#pragma once

/// What zarkctl tells the shell.
enum ExitStatus {
    ExitOk = 0,
    ExitServerError = 1, ///< The device answered, with an error.
    ExitUsage = 2, ///< The command line, or a file that it names, is wrong.
    ExitUnreachable = 3, ///< No answer: refused, timed out, or a certificate that is not trusted.
};
