#include "core/command_line.hpp"

#include "platform/logger.hpp"
#include "platform/text.hpp"

#include <getopt.h>

#include <cstdio>
#include <cstdlib>

namespace tunnel_mngr {

namespace {

constexpr unsigned highestPrintLevel = 100;

constexpr option longOptions[] = {
    {"help", no_argument, nullptr, 'h'},
    {"daemonize", no_argument, nullptr, 'd'},
    {"printlvl", required_argument, nullptr, 'p'},
    {nullptr, 0, nullptr, 0},
};

[[noreturn]] void printUsage(const char* program) {
  std::printf("Usage: %s --h\n", program);
  std::puts("\tEstablishes GRE Tunnels based on current configurations");
  std::puts("\t--printlvl (p)  : sets the printlvl [0-100]");
  std::puts("\t--daemonize (d) : initializes then waits on SIGUP signal");
  std::puts("\t--help (h)      : returns this message");
  std::exit(0);
}

void readPrintLevel(const char* text) {
  int level = 0;
  if (!VEXA::Text::parse(level, text) || static_cast<unsigned>(level) > highestPrintLevel) {
    std::printf("print level out of range [0-100]");
    std::exit(1);
  }
  VEXA::Logger::setPrintLevel(level, true);
}

void nameStrayArguments(int argc, char* argv[]) {
  if (optind >= argc) {
    return;
  }
  std::fputs("non-option ARGV-elements: \n", stderr);
  while (optind < argc) {
    std::fprintf(stderr, "%s ", argv[optind++]);
  }
  std::fputc('\n', stderr);
}

}  // namespace

bool daemonize = false;

void parseCommandLine(int argc, char* argv[]) {
  int found = 0;
  while ((found = getopt_long(argc, argv, "hdp:", longOptions, nullptr)) != -1) {
    switch (found) {
      case 'h':
        printUsage(argv[0]);
      case 'd':
        daemonize = true;
        break;
      case 'p':
        readPrintLevel(optarg);
        break;
      case '?':
        break;
      default:
        std::puts("ABORTING!!");
        std::fflush(stdout);  // abort() does not
        std::abort();
    }
  }
  nameStrayArguments(argc, argv);
}

}  // namespace tunnel_mngr
