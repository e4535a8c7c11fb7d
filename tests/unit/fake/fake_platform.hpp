#pragma once

#include <functional>
#include <string>
#include <vector>

/// The recording platform: what unit tests link in place of libvexa.so.0.
///
/// Everything that the code under test does with the platform is written, in order, to
/// one trace; a test compares the whole trace. Entries look like this:
///
///     INFO Creating GRE tunnel: [a] ...        a record: label and text
///     cmd ip tunnel                            System::cmd with its line
///     execute /etc/hook -n a -d up             System::execute, the words joined by blanks
///     readFile /var/run/x.pid                  System::readFile
///     lock / unlock                            Lock (only with traceLocks)
///     wait 200 / signal                        Condition
///     start NAME / stop NAME / sleep 30000     Thread
///
/// No thread is started and nothing sleeps. Call reset() at the start of each test.
namespace fake {

/// Forgets trace and scripts; the print level is 100 again.
void reset();

/// Everything that happened since reset() or takeTrace().
const std::vector<std::string>& trace();

/// Returns the trace and starts a new one.
std::vector<std::string> takeTrace();

/// Adds an entry of the test's own: for fakes of neighbouring rooms.
void record(const std::string& entry);

/// Sets the print level, as --printlvl does.
void setPrintLevel(int level);

/// What Logger::setup answers, call by call; true when nothing is scripted.
void scriptSetup(std::vector<bool> results);

/// Answers the next call of exactly this command line with a status and an output. Several
/// answers to one line are used up in order; the last one stays. Lines that nobody scripted
/// return 0 and no output. For System::execute the line is the words joined by blanks.
void script(const std::string& line, int status, const std::string& output = "");

/// Answers System::readFile of a path. Unknown paths give ENOENT.
void scriptFile(const std::string& path, int error, const std::string& content);

/// Called, after the entry is written, by every System::cmd and System::execute.
extern std::function<void(const std::string& line)> onCommand;

/// Called, after the entry is written, by every Condition::wait and Thread::sleep. A test
/// uses it to cancel a thread, change a flag or throw.
extern std::function<void(unsigned milliseconds)> onWait;
extern std::function<void(unsigned milliseconds)> onSleep;

/// Called with every entry once it is written.
extern std::function<void(const std::string& entry)> onEntry;

/// Whether locking and unlocking are written to the trace. Off after reset().
extern bool traceLocks;

}  // namespace fake
