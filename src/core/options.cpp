#include "core/options.h"

#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <optional>

#include "base/log.h"

namespace korvo {

#ifndef KORVO_VERSION
#define KORVO_VERSION "1.30rc24"
#endif
const char* const kVersion = KORVO_VERSION;

void usage(FILE* err, const char* argv0, bool extended) {
  fprintf(err,
          "usage: %s [-p] [-m <MB>] [-w <protocol>] [-d] [-l <level>] [-f <file>] [-P <file>] [-R <file>] "
          "[-A <device>] [-F <hz>] [-C <n>] [-X <xml>] [-N <port>] [-H] [-v] [-h] path\n",
          argv0);
  fputs("\t-p: dont preload samples when initing.\n", err);
  fputs("\t-m: limit sample pool size.\n", err);
  fputs("\t-w: wire protocol. can be one of ", err);
  for (int i = 0; i < kProtocolCount - 1; ++i) fprintf(err, "%s ", protocolNames[i]);
  fputs(". default DATAEAST.\n", err);
  fputs("\t-d: enable debug with keyboard input.\n", err);
  fputs("\t-l: set loglevel 0-5 (no logging, error, warn, info, debug, trace).\n", err);
  fputs("\t-f: log to file (instead of stdout).\n", err);
  fputs("\t-P: playback a recording.\n", err);
  fputs("\t-R: record current session.\n", err);
  if (extended) {
    fputs("\t-I: start only hardware IO testing (no sounds at all).\n", err);
    fputs("\t-J: copy local config from sound data path.\n", err);
    fputs("\t-T <csv>: write meta data of sound set as csv.\n", err);
    fputs("\t-K <xsnd>: write sound set as xsnd.\n", err);
    fputs("\t-s <xsnd>: strip paths when writing xsnd.\n", err);
    fputs("\t-a: run without audio (debugging only).\n", err);
  }
  fputs("\t-A: set audio device for alsa.\n", err);
  fputs("\t-F: set audio frequency (default: 44100).\n", err);
  fputs("\t-C: set no of audio channels (default: 2 -> stereo).\n", err);
  fputs("\t-X: set name of xml file to parse for DSP settings / firmware.\n", err);
  fputs("\t-N: http port to listen (defailt 31008).\n", err);
  fputs("\t-H: to start http service.\n", err);
  fputs("\t-v: print version.\n", err);
  fputs("\t-h: print this help.\n", err);
  fputs("\tpath: base path for sound sets (see doc), w/o trailing slash.\n", err);
  fprintf(err, "\nversion: %s.\n", kVersion);
}

namespace {

// Takes one option into `opt` and `s`; a result when the option ends the program.
std::optional<ParseResult> applyOption(int c, char** argv, Options& opt, Settings& s, FILE* out, FILE* err) {
  switch (c) {
    case 'w':
      s.protocol = getProtocolFromString(optarg);
      LOG(LEVEL_INFO, "protocol set to %s", optarg);
      break;
    case 'l': {
      int level = 0;
      if (sscanf(optarg, "%d", &level) == 1) setLogLevel(level);
      break;
    }
    case 'f':
      // From here on: what the options after -f log belongs in the file too.
      opt.logFileName = optarg;
      Log::instance().openLogFile(opt.logFileName);
      break;
    case 'A':
      LOG(LEVEL_DEBUG, "setting AUDIODEV to '%s'", optarg);
      opt.audioDev = optarg;
      setenv("AUDIODEV", optarg, 1);
      break;
    case 'F': s.frequency = atoi(optarg); break;
    case 'C': s.channels = atoi(optarg); break;
    case 'm': s.samplePoolSizeInByte = static_cast<unsigned long>(atoi(optarg)) << 20; break;
    case 'p': s.preloadThreshold = 1; break;
    case 'N': opt.httpPort = atoi(optarg); break;
    case 'H': opt.enableHttpService = 1; break;
    case 'X': opt.dspXmlFile = optarg; break;
    case 'P': opt.playbackFile = optarg; break;
    case 'R': opt.recordFile = optarg; break;
    case 'T': opt.csvFile = optarg; break;
    case 'K': opt.xsndFile = optarg; break;
    case 's': opt.stripPaths = 1; break;
    case 'I': opt.testIOonly = 1; break;
    case 'J': opt.copyLocalConfig = 1; break;
    case 'a': opt.enableAudio = 0; break;
    case 'd': opt.enableDebug = 1; break;
    case 'h': ++opt.helpCount; break;
    case 'v':
      fprintf(out, "%s\n\rversion: %s\n", argv[0], kVersion);
      return ParseResult{true, 1};
    case 'c':
      return ParseResult{true, 1};
    case '?':
    default:
      if (isprint(optopt))
        fprintf(err, "Unknown option `-%c'.\n", optopt);
      else
        fprintf(err, "Unknown option character `\\x%x'.\n", static_cast<unsigned>(optopt));
      return ParseResult{true, 1};
  }
  return std::nullopt;
}

}  // namespace

ParseResult parseOptions(int argc, char** argv, Options& opt, Settings& s, FILE* out, FILE* err) {
  if (argc <= 1) {
    usage(err, argc > 0 ? argv[0] : "korvo", false);
    return {true, 1};
  }
  opterr = 0;  // bad options get our own messages
  optind = 0;  // glibc: 0 re-initialises getopt fully (parsing may run more than once)
  int c;
  while ((c = getopt(argc, argv, "w:l:f:A:F:C:m:pN:HX:P:R:T:K:sIJadhvc:")) != -1)
    if (auto done = applyOption(c, argv, opt, s, out, err)) return *done;
  if (opt.helpCount > 0) {
    usage(err, argv[0], opt.helpCount > 1);
    return {true, 1};
  }
  if (optind < argc) {
    opt.baseDir = argv[optind];
    while (opt.baseDir.size() > 1 && opt.baseDir.back() == '/') opt.baseDir.pop_back();
  }
  return {};
}

}  // namespace korvo
