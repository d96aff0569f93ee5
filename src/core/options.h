// The command line: options, usage texts and the version.
#pragma once

#include <cstdio>
#include <string>

#include "core/settings.h"

namespace korvo {

extern const char* const kVersion;

struct Options {
  int enableAudio = 1;        // -a clears it
  int enableDebug = 0;        // -d: keyboard console
  int enableHttpService = 0;  // -H
  int copyLocalConfig = 0;    // -J
  int testIOonly = 0;         // -I
  int stripPaths = 0;         // -s
  int httpPort = 31008;       // -N
  int helpCount = 0;          // -h, may be repeated
  std::string logFileName;    // -f
  std::string dspXmlFile;     // -X
  std::string playbackFile;   // -P
  std::string recordFile;     // -R
  std::string csvFile;        // -T
  std::string xsndFile;       // -K
  std::string audioDev;       // -A
  std::string baseDir;        // the positional argument, without trailing slash
};

// What parsing decided: go on and start, or leave with `exitCode`.
struct ParseResult {
  bool exit = false;
  int exitCode = 0;
};

// Parses argv with POSIX getopt into `opt` and `s` (option values override the
// defaults already in `s`). Prints usage, version and bad-option texts to `out` /
// `err`. Does not exit: the caller does.
ParseResult parseOptions(int argc, char** argv, Options& opt, Settings& s, FILE* out = stdout,
                         FILE* err = stderr);
// Writes the usage text (extended adds the conversion and test options).
void usage(FILE* err, const char* argv0, bool extended);

}  // namespace korvo
