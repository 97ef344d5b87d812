#pragma once

namespace cli {

// What the program ends with; a stable interface. The numbers from 65 on are those of sysexits.h.
enum ExitCode : int {
  ExitComplete = 0,
  ExitIncomplete = 1,
  ExitUsage = 2,
  ExitManifest = 65,     // not a usable manifest
  ExitUnreachable = 66,  // host or server not reachable, or no such file or download
  ExitCannotWrite = 73,  // not writable, or the disk is full
  ExitHeld = 75,         // another process works on this download
  ExitInterrupted = 130,
  ExitTerminated = 143,
};

}  // namespace cli
