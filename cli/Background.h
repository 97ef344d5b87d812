#pragma once

#include <optional>

#include "cli/Options.h"
#include "platform/JSON.h"
#include "platform/URLSession.h"

namespace cli {

struct Place;

// `download --background`: a process of its own, without a terminal, works on the download; this
// one returns once everything is in the transfer service's hands, or fails as the other did.
int runInBackground(const Options& options);
// The same for a download that has a record, with what that says. Returns what the process told
// when it had begun; throws Failure.
platform::JSON goOnInBackground(const Place& place);

// The hidden command that is the other process: `resume-session`. Either started by the above,
// which hand the options over on standard input and hear on standard output, or by the service,
// which says in QN_SESSION_IDENTIFIER whose record tells what to do.
int runResumeSession(const Options& options);

// How the service starts this program again: `resume-session` with what of the environment decides
// where things lie.
platform::LaunchCommand launchCommand();

}  // namespace cli
