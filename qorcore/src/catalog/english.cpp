// The English text of every message: what is printed where no other language has it, and what translations
// are measured by. Numbers are never moved or reused. {1} to {10} are inserts.
//
// The syntax texts of help stand in a column of their own: 34 characters at most, in every language.
#include "catalog/catalog.h"

#include <algorithm>
#include <functional>

namespace {

using qor::catalog::built_in;
using qor::catalog::message;

// What the tool says.
constexpr message qortool[] = {
    {1, "qortool - tries out and inspects the facilities of the framework"},
    {2, "help"},
    {3, "Show this list of actions and options."},
    {5, "No action was given. 'qortool help' lists the actions."},
    {6, "The action has succeeded."},
    {7, "Usage: qortool [options] <action> [arguments]\n\nThe actions, and below them the options:"},
    {8, "--quiet"},
    {9, "Leave out the banner, headings and the message of success."},
    {10, "There is no action '{1}'. 'qortool help' lists the actions."},
    {11, "There is no option '--{1}'. 'qortool help' lists the options."},
    {12, "netlist"},
    {13, "List the network interfaces with their addresses."},
    {14, "Network interfaces:\n"},
    {15, "(none)"},
    {16, "Name:              {1}"},
    {17, "Description:       {1}"},
    {18, "Hardware address:  {1}"},
    {19, "IPv4 address:      {1}"},
    {20, "Default gateway:   {1}"},
    {21, "The network interfaces cannot be listed: {1}"},
    {22, "Display name:      {1}"},
    {23, "pwcrypt <password>"},
    {24, "Print the form in which the framework stores a password."},
    {25, "ttyinfo <port>"},
    {26, "Open a serial port and show its name and location."},
    {27, "md5sum <file>"},
    {28, "Print the MD5 digest of a file."},
    {29, "lookup <host>"},
    {30, "Print the addresses of a host."},
    {31, "dow <day>/<month>/<year>"},
    {32, "Print the weekday of a date."},
    {33, "This date cannot be used. A date is written day/month/year: 28/3/2021."},
    {34, "debug-control <host> <port>"},
    {35, "Switch the trace codes of another process on and off."},
    {36, "The action '{1}' has no option '--{2}'. 'qortool help' shows what it takes."},
    {37, "The number of arguments is wrong for the action '{1}'. 'qortool help' shows what it takes."},
    {44, "timer-check"},
    {45, "Compare the tick counter with the system time once a second, until it is stopped."},
    {46, "Comparing the tick counter with the system time; Ctrl-C stops it."},
    {47, "Connecting ..."},
    {48, "Logged in. 'help' lists the commands; the end of the input ends the console."},
    {49, "help              Show this list of commands."},
    {50, "disable <name>    Switch a trace code off."},
    {51, "simd-test"},
    {52, "Measure the framework's memory routines beside those of the C library."},
    {53, "Measuring memory routines: 1000 calls each, over eight buffers of 64 MiB."},
    {54, "list-serial"},
    {55, "List the serial ports with their locations."},
    {56, "sysinfo [--developer]"},
    {57, "Report on the host; --developer adds the sizes of some types of the framework."},
    {58, "System information:\n"},
    {59, "userinfo <user>"},
    {60, "Show a user account with its rights and groups."},
    {63, "There is no such command. 'help' lists the commands."},
    {64, "The arguments do not fit this command. 'help' shows what it takes."},
    {65, "Commands:"},
    {66, "show-all          List all trace codes of the process."},
    {67, "show-enabled      List the trace codes that are on."},
    {68, "enable <name>     Switch a trace code on."},
    {69, "disable-all       Switch all trace codes off."},
    {70, "Trace codes of the process:"},
    {71, "No trace code is on."},
    {72, "Trace codes that are on:"},
    {73, "Version {1}"},
    {78, "mtrace <log> [<memcheck log>]"},
    {79, "Report leaks and bad frees from an mtrace log; a memcheck log adds source lines and types."},
    {80, "tztest"},
    {81, "Show how a local time near the change to summer time is converted."},
    {82, "IPv6 address:      {1}"},
    {83, "memcheck <memcheck log>"},
    {84, "Report leaks and bad frees from a log that --qor-memcheck wrote."},
    {85, "path-list"},
    {86, "List the named folders of the framework with their paths."},
    {87, "logon <user> <password>"},
    {88, "Log a user on and show the account; only a super-user may do this."},
    {89, "User information:"},
    {90, "Logging on ..."},
    {91, "Logged on."},
    {92, "'{1}' is no mtrace log. It looks like {2}."},
    {93, "'{1}' is no memcheck log. It looks like {2}."},
    {94, "an mtrace log, which 'qortool mtrace' takes as its first file"},
    {95, "a memcheck log, which 'qortool memcheck' takes, or 'qortool mtrace' as its second file"},
    {96, "a memcheck log: swap the two files"},
    {97, "an ELF file: a program, a library or a core dump"},
    {98, "a file compressed by {1}, which must be expanded first"},
    {99, "an HTML page"},
    {100, "UTF-16 text, which must be converted to UTF-8 first"},
    {101, "binary data"},
    {102, "zero bytes and nothing else"},
    {103, "blank lines and nothing else"},
    {104, "a text of another kind"},
    {105, "{1} The report covers only what was read before."},
};

// What qor-debug-user says.
constexpr message qor_debug_user[] = {
    {1, "Usage: qor-debug-user [options] <action> [<word> ...]\n\nThe actions, and below them the options:"},
    {2, "add <name>"},
    {3, "Make an account for debug control. The password is asked for, or a line of standard input."},
    {4, "password <name>"},
    {5, "Give an account another password."},
    {6, "remove <name>"},
    {7, "Take an account away."},
    {8, "list"},
    {9, "List the accounts."},
    {10, "help"},
    {11, "Show this list of actions and options."},
    {12, "--file=FILE"},
    {13, "The accounts in FILE, not those in the framework's configuration folder."},
    {14, "--generate"},
    {15, "Make the password up and print it, once."},
    {16, "There is no option '--{1}'. 'qor-debug-user help' lists the options."},
    {17, "There is no action '{1}'. 'qor-debug-user help' lists the actions."},
    {18, "The number of words is wrong for '{1}'. 'qor-debug-user help' shows what it takes."},
    {19, "No action was given. 'qor-debug-user help' lists the actions."},
    {20, "The option '--{1}' is written '{2}'."},
    {21, "Password for '{1}': "},
    {22, "The same again: "},
    {23, "The two are not the same. Nothing was changed."},
    {24, "There is no password: the input has ended."},
    {25, "The account '{1}' was made."},
    {26, "The account '{1}' has another password now."},
    {27, "The account '{1}' was taken away."},
    {28, "fingerprint"},
    {29, "Print the fingerprint of the key beside the accounts, by which consoles know the listener."},
    {30, "trust <host> <port> <fingerprint>"},
    {31, "Note the key of a listener for this user's consoles, before they log in there."},
    {32, "'{1}' is no port: that is a number from 1 to 65535."},
    {33, "Consoles of this user take no other key of '{1}', port {2}."},
};

// What the framework says: its errors, and from 1000 on all else.
constexpr message qorcore[] = {
#define QOR_ERROR(number, name, error_class, text) {number, text},
#include "qor/system/errors.def"
#undef QOR_ERROR
    {1000, "Options of the framework, for every program that is built on it:"},
    {1001, "--qor-debug=NAMES"},
    {1002, "Switch trace codes on, for instance 'system.*' (or set QOR_DEBUG)."},
    {1003, "--qor-debug-file=FILE"},
    {1004, "Write the trace to FILE, not to standard error (or set QOR_DEBUG_FILE)."},
    {1005, "--qor-memcheck=FILE"},
    {1006, "Log this process's allocations in FILE, for 'qortool memcheck' (or set QOR_MEMCHECK)."},
    {1007, "--qor-language=LIST"},
    {1008, "Languages for messages, the best first, for instance 'de:fr' (or set QOR_LANGUAGE)."},
    {1020, "{1}: {2}"},
    {1021, "{1}: assertion failed: {2}, in {3} ({4}:{5})"},
    {1022, "The results could not be written: {1}."},
    {1023, "The results could not be written."},
    {1024, "The digest of '{1}' could not be computed."},
    {1030, "'{1}' is not the name of a language"},
    {1031, "it names no language"},
    {1035, "XDG_RUNTIME_DIR is not set to an absolute path"},
    {1036, "neither HOME nor the user's account names a home folder"},
    {1037, "the system does not tell the path of the running file"},
    {1040, "it is no library, or only a part of one"},
    {1050, "others than its owner have access to it, which 'chmod 600' takes away"},
    {1051, "it belongs to somebody else"},
    {1052, "it is no plain file"},
    {1053, "it is too long"},
    {1054, "it has no colon behind the name"},
    {1055, "the name is none"},
    {1056, "what stands behind the name is no stored password"},
    {1057, "the name stands in an earlier line, too"},
    {1058, "it is no private key of the curve P-256, or a damaged one; taken away, it is replaced by a new one, which "
           "consoles do not know yet"},
    {1059, "the folder '{1}' belongs to somebody else"},
    {1060, "others may change what is in the folder '{1}', which 'chmod go-w' takes away"},
    {1061, "another program of the same user has held the lock '{1}' for 20 seconds"},
    {1062, " The listener has not proved itself yet. Before a password is typed again, compare the fingerprint of its "
           "key, {1}, with what 'qor-debug-user fingerprint' prints there."},
    {1063, "The key of '{1}', port {2}, is not known here yet. Its fingerprint is {3}; 'qor-debug-user fingerprint' "
           "prints the right one where the listener runs."},
    {1065, "--qor-debug-listen=[HOST:]PORT"},
    {1066, "Let 'qortool debug-control' switch trace codes here (or set QOR_DEBUG_LISTEN)."},
    {1067, "--qor-debug-users=FILE"},
    {1068, "Who may do so: accounts that 'qor-debug-user' wrote to FILE (or set QOR_DEBUG_USERS)."},
    {1070, "it does not answer"},
    {1071, "it closed the connection"},
    {1072, "it was silent for too long"},
    {1073, "TLS 1.3 fails: {1}"},
    {1074, "it does not speak '{1}'"},
    {1075, "a frame that makes no sense"},
    {1076, "it asks for a login that is not safe"},
    {1077, "it does not read its answers"},
    {1078, "there is no such file"},
    {1079, "others may read it (take that right away: chmod go= FILE)"},
    {1080, "it is no valid international name"},
    {1081, "it is an international name, and the library libidn2, which the system needs for these, is missing"},
    {1086, "this process has closed its socket"},
};

constexpr built_in catalogs[] = {{"qorcore", qorcore}, {"qortool", qortool}, {"qor-debug-user", qor_debug_user}};

// Each look-up relies on the order; an empty text would pass for a missing message.
static_assert(std::ranges::all_of(catalogs, [](const built_in& each) {
    return std::ranges::adjacent_find(each.messages, std::ranges::greater_equal(), &message::number) ==
               each.messages.end() &&
           std::ranges::none_of(each.messages, &std::string_view::empty, &message::text);
}));

} // namespace

std::span<const qor::catalog::built_in> qor::catalog::english() noexcept { return catalogs; }

const message* qor::catalog::find_message(std::span<const message> messages, uint32 number) noexcept {
    const auto found = std::ranges::lower_bound(messages, number, {}, &message::number);
    return found != messages.end() && found->number == number ? &*found : nullptr;
}
