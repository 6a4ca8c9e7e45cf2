/// Fatal signals. The dying process leaves a report, $XDG_RUNTIME_DIR/Vantric_crash.txt (/tmp without that variable), and a child of it
/// runs a shell script that asks the user what happened and hands the report to the mail client. The process itself ends by its signal,
/// some seconds later at the latest, whatever has crashed. Where something else stands in the report's place than a file of the user's own,
/// there is neither report nor dialogue.
/// Uses no other part of the program than its name, version and mailbox, so that it can come first; the dialogue's language is
/// therefore that of the environment.
#pragma once

namespace CrashHandler {

/// Installs the handler for SIGSEGV, SIGABRT, SIGFPE, SIGBUS, SIGILL and SIGTRAP. Called once, before anything else can crash.
void install();

}  // namespace CrashHandler
