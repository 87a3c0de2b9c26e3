// zebctl login, rights and whoami: who may do what, as the agent sees it.
#include <fcntl.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "commands.h"
#include "output.h"
#include "status.h"
#include "text.h"
#include "zebcs/auth.h"
#include "zebcs/frame.h"
#include "zebcs/rolemap.h"
#include "zebcs/rolemap.hpp"

namespace {

using nlohmann::ordered_json;

struct Arguments {
  std::string user;
  std::optional<std::string> domain;
  bool asJSON = false;
};

// --- Rights ---------------------------------------------------------------------------------------------------------

std::vector<std::string> WordsOf(u32 rights) {
  constexpr u32 kPrivilegeBits = 0xFFFF;
  constexpr u32 kSuperuserBit = ZEBCS_RIGHTS_SUPERUSER & ~kPrivilegeBits;
  std::vector<std::string> words;
  switch (rights & kPrivilegeBits) {
    case ZEBCS_RIGHTS_NONE: words.emplace_back("none"); break;
    case ZEBCS_RIGHTS_USER: words.emplace_back("user"); break;
    case ZEBCS_RIGHTS_POWER_USER: words.emplace_back("power user"); break;
    case ZEBCS_RIGHTS_ADMINISTRATOR: words.emplace_back("administrator"); break;
    default: words.emplace_back("unknown"); break;
  }
  if ((rights & kSuperuserBit) != 0) words.emplace_back("superuser");
  return words;
}

std::string Hexadecimal(u32 rights) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%x", rights);
  return text;
}

std::string ToText(u32 rights) {
  std::string text = Hexadecimal(rights) + ' ';
  for (const std::string &word : WordsOf(rights)) text += (text.back() == ' ' ? " " : ", ") + word;
  return text;
}

ordered_json ToJSON(u32 rights) {
  return {{"rights", rights}, {"hexadecimal", Hexadecimal(rights)}, {"words", WordsOf(rights)}};
}

u32 RightsOf(std::string userSpec) { return get_user_rights(userSpec.data()); }

// --- Hints ----------------------------------------------------------------------------------------------------------

using Hints = std::vector<std::string>;

// Whether rights are answered from the role map's file since the last question about them, which itself does not tell.
bool IsRoleMapInUse() {
  try {
    // Without opening the file: one that has been opened and not read would seem empty the second time. After a user
    // who is named twice the reader has no error left, but the built-in records, which have no line.
    const std::deque<QXAuthFileRecord *> &records = QXAuthFileReader::GetInstance().GetRecords();
    return std::all_of(records.begin(), records.end(),
                       [](const QXAuthFileRecord *record) { return record->GetLineNumber() != 0; });
  } catch (const ZEBRoleMapFileReaderException &) {
    return false;
  }
}

// What to know about rights that have just been asked for.
Hints HintsOnRights() {
  Hints hints;
  if (!IsAttached()) hints.push_back(std::string(kNotAttached) + " Without it, the role map does not know this host.");
  if (!IsRoleMapInUse()) {
    hints.emplace_back(
        "The role map cannot be used, at least not by this account. Built-in records stand in for it: root is "
        "administrator, group root has poweruser, and anyone is user. Run \"zebctl rolemap check\" to see why.");
  }
  return hints;
}

void PrintJSON(const ordered_json &answer) { Print(answer.dump(2) + '\n'); }

void PrintHints(const Hints &hints) {
  for (const std::string &hint : hints) Complain("zebctl: " + hint + '\n');
}

// --- The password ---------------------------------------------------------------------------------------------------

// The one copy of a password in this program, in the form that the library takes.
class Password {
 public:
  Password() = default;
  Password(const Password &) = delete;
  Password &operator=(const Password &) = delete;
  ~Password() { Wipe(); }

  void Wipe() {
    explicit_bzero(m_units.data(), sizeof m_units);
    m_length = 0;
  }

  // Appends a character. Returns whether there was room for it.
  [[nodiscard]] bool Add(unsigned char character) {
    if (m_length + 1 == m_units.size()) return false;
    m_units[m_length++] = character;
    return true;
  }

  ustring *units() { return m_units.data(); }

 private:
  static constexpr size_t kRoom = 512;  // what PAM takes for an answer, terminator included

  std::array<ustring, kRoom> m_units{};
  size_t m_length = 0;
};

enum class Reading { kGood, kNothing, kTooLong, kNotASCII, kInterrupted, kFailed };

// Waits for standard input. Returns false when a signal has come first.
bool WaitForInput(int signals) {
  std::array<pollfd, 2> polled{{{STDIN_FILENO, POLLIN, 0}, {signals, POLLIN, 0}}};
  (void)poll(polled.data(), polled.size(), -1);  // reading tells what is wrong with the input
  return polled[1].revents == 0;
}

// Reads the first line of standard input, byte by byte: so there is no buffer with another copy of it, and what is
// behind it stays for others. With -1 for signals, nothing but the input is waited for.
Reading ReadLine(Password &password, int signals) {
  for (bool isEmpty = true;; isEmpty = false) {
    if (signals != -1 && !WaitForInput(signals)) return Reading::kInterrupted;
    unsigned char byte = 0;
    const ssize_t count = read(STDIN_FILENO, &byte, 1);
    if (count < 0) return Reading::kFailed;
    if (count == 0) return isEmpty ? Reading::kNothing : Reading::kGood;
    if (byte == '\n') return Reading::kGood;
    if (byte == 0 || byte > 0x7F) return Reading::kNotASCII;
    if (!password.Add(byte)) return Reading::kTooLong;
  }
}

// Holds back the signals that would end or stop the program, and tells by a descriptor that one has come. It arrives
// when the object goes away. Signals about a terminal that belongs to another job are not among them: the program is to
// stop then, before it changes anything.
class HeldSignals {
 public:
  [[nodiscard]] HeldSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGTSTP, SIGALRM, SIGUSR1, SIGUSR2}) {
      sigaddset(&signals, signal);
    }
    sigprocmask(SIG_BLOCK, &signals, &m_former);
    m_descriptor = signalfd(-1, &signals, SFD_CLOEXEC);
  }
  HeldSignals(const HeldSignals &) = delete;
  HeldSignals &operator=(const HeldSignals &) = delete;
  ~HeldSignals() {
    const int error = errno;
    if (m_descriptor >= 0) close(m_descriptor);
    sigprocmask(SIG_SETMASK, &m_former, nullptr);
    errno = error;
  }

  explicit operator bool() const { return m_descriptor >= 0; }
  int descriptor() const { return m_descriptor; }

 private:
  sigset_t m_former;
  int m_descriptor;
};

// Keeps the terminal at standard input from showing what is typed. At both ends, what has been typed and not been read
// is thrown away, so that no part of a password is taken for something else.
class EchoOff {
 public:
  [[nodiscard]] EchoOff() {
    if (tcgetattr(STDIN_FILENO, &m_former) != 0) return;
    termios quiet = m_former;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL);
    m_isOff = tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet) == 0;
  }
  EchoOff(const EchoOff &) = delete;
  EchoOff &operator=(const EchoOff &) = delete;
  ~EchoOff() {
    const int error = errno;
    if (m_isOff) (void)tcsetattr(STDIN_FILENO, TCSAFLUSH, &m_former);  // fails when the terminal is gone
    errno = error;
  }

  explicit operator bool() const { return m_isOff; }

 private:
  termios m_former{};
  bool m_isOff = false;
};

Reading AskOnce(const std::string &prompt, Password &password) {
  const HeldSignals signals;  // let go last, when the terminal is as it was and the password is gone
  if (!signals) return Reading::kFailed;
  const EchoOff echoOff;
  if (!echoOff) return Reading::kFailed;
  Complain(prompt);
  const Reading reading = ReadLine(password, signals.descriptor());
  if (reading != Reading::kGood) password.Wipe();
  const int error = errno;
  Complain("\n");
  errno = error;
  return reading;
}

// Whether standard input was inherited. If not, the library's lock file, which always has the flag, got its number.
bool IsInputOpen() {
  const int flags = fcntl(STDIN_FILENO, F_GETFD);
  return flags != -1 && (flags & FD_CLOEXEC) == 0;
}

// Reads the password. Returns what is wrong with it; empty for nothing.
std::string ReadPassword(const std::string &name, Password &password) {
  if (!IsInputOpen()) return "Standard input is closed, so that there is no password.";
  Reading reading = Reading::kInterrupted;
  if (isatty(STDIN_FILENO) == 0) {
    reading = ReadLine(password, -1);
  } else {
    const std::string prompt = "Password for " + LineForTerminal(FromUTF8(name)) + ": ";
    // A signal that neither ended nor stopped the program, or one that stopped it until now: ask again.
    while (reading == Reading::kInterrupted) reading = AskOnce(prompt, password);
  }
  switch (reading) {
    case Reading::kNothing: return "Standard input ended, so that there is no password.";
    case Reading::kTooLong: return "The password is longer than 511 characters, which PAM does not take.";
    case Reading::kNotASCII:
      return "The password has a character that is not ASCII. The library refuses every login with such a password.";
    case Reading::kFailed: return std::string("The password could not be read: ") + std::strerror(errno) + '.';
    case Reading::kGood:
    case Reading::kInterrupted: break;
  }
  return "";
}

// --- Commands -------------------------------------------------------------------------------------------------------

// An ASCII text in the library's form.
std::vector<ustring> UnitsOf(const std::string &text, const char *what) {
  if (std::any_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) > 0x7F; })) {
    throw BadArgument(std::string(what) +
                      " has a character that is not ASCII. The library refuses every login with such a name.");
  }
  std::vector<ustring> units;
  for (const char c : text) units.push_back(static_cast<unsigned char>(c));
  units.push_back(0);
  return units;
}

// What may have been the reason for a refusal, which the library does not tell.
Hints HintsOnRefusal(const std::string &name) {
  Hints hints;
  const std::string service(pam_servicename);
  const bool isGranted = RightsOf(name) != ZEBCS_RIGHTS_NONE;
  if (!isGranted) {
    hints.emplace_back(
        "The role map grants this user no rights, so that no password would do. Run \"zebctl rolemap check\" to see "
        "whom it grants some.");
  } else {
    hints.push_back("PAM refused: the password is wrong, the account is missing, locked or expired, or a module of " +
                    service + " wants more than a name and a password.");
  }
  const std::string file = "/etc/pam.d/" + service;
  if (access(file.c_str(), F_OK) != 0) {
    hints.push_back("There is no file " + file + ", so that PAM goes by the service \"other\", if at all.");
  }
  if (isGranted && geteuid() != 0) {
    hints.emplace_back("This account may not be able to check the passwords of others. Run zebctl as root.");
  }
  return hints;
}

int Login(const Arguments &arguments) {
  if (arguments.user.empty()) throw BadArgument("USER is empty. Name an account.");
  const std::vector<ustring> user = UnitsOf(arguments.user, "USER");
  const std::vector<ustring> domain = UnitsOf(arguments.domain.value_or(""), "DOMAIN");
  const std::string name = arguments.domain ? arguments.user + '@' + *arguments.domain : arguments.user;
  Password password;
  u32 rights = ZEBCS_RIGHTS_NONE;
  Hints hints;
  const std::string fault = ReadPassword(name, password);
  if (fault.empty()) {
    rights = KCSAuthenticateUser(arguments.domain ? domain.data() : nullptr, user.data(), password.units());
    if (rights == ZEBCS_RIGHTS_NONE) hints = HintsOnRefusal(name);
    const Hints more = HintsOnRights();
    hints.insert(hints.end(), more.begin(), more.end());
  } else {
    hints.push_back(fault);
  }
  password.Wipe();
  const bool isAccepted = rights != ZEBCS_RIGHTS_NONE;
  if (arguments.asJSON) {
    ordered_json answer{
        {"user", ForJSON(FromUTF8(arguments.user))},
        {"domain", arguments.domain ? ordered_json(ForJSON(FromUTF8(*arguments.domain))) : ordered_json()},
        {"accepted", isAccepted}};
    answer.update(ToJSON(rights));
    answer["hints"] = hints;
    PrintJSON(answer);
  } else {
    if (fault.empty()) Print((isAccepted ? ToText(rights) : "refused") + '\n');
    PrintHints(hints);
  }
  return isAccepted ? kExitGood : kExitNo;
}

int Rights(const Arguments &arguments) {
  if (arguments.user.empty()) throw BadArgument("USER is empty. Name an account.");
  const std::wstring user = Widen(arguments.user, "USER");
  const u32 rights = RightsOf(arguments.user);
  const Hints hints = HintsOnRights();
  if (arguments.asJSON) {
    ordered_json answer{{"user", ForJSON(user)}};
    answer.update(ToJSON(rights));
    answer["hints"] = hints;
    PrintJSON(answer);
  } else {
    Print(ToText(rights) + '\n');
    PrintHints(hints);
  }
  return rights == ZEBCS_RIGHTS_NONE ? kExitNo : kExitGood;
}

struct Free {
  void operator()(astring *text) const { std::free(text); }
};
struct FreeText {
  void operator()(astring *text) const { KCSFreeMem(text); }
};

int WhoAmI(const Arguments &arguments) {
  const u32 processRights = KCSGetProcessRights();
  (void)KCSOpenRolemapFile();  // always 0
  const u32 roleMapRights = KCSGetRightsUsingRolemap();
  const Hints hints = HintsOnRights();
  const std::unique_ptr<astring, Free> user(KCSGetProcessUser());
  const std::unique_ptr<astring, FreeText> domain(KCSGetComputerDomainName());
  if (arguments.asJSON) {
    const auto textOrNull = [](const astring *text) {
      return text == nullptr ? ordered_json() : ordered_json(ForJSON(FromUTF8(text)));
    };
    PrintJSON(ordered_json{{"processRights", ToJSON(processRights)},
                           {"roleMapRights", ToJSON(roleMapRights)},
                           {"user", textOrNull(user.get())},
                           {"domain", textOrNull(domain.get())},
                           {"hints", hints}});
    return kExitGood;
  }
  const auto textOrDash = [](const astring *text) {
    if (text == nullptr) return std::string("-");
    return *text == 0 ? std::string("(empty)") : LineForTerminal(FromUTF8(text));
  };
  PrintHints(hints);
  Print(Table({{"WHAT", "VALUE"},
               {"rights of the process", ToText(processRights)},
               {"rights by the role map", ToText(roleMapRights)},
               {"user", textOrDash(user.get())},
               {"domain", textOrDash(domain.get())}}));
  return kExitGood;
}

constexpr char kRightsHelp[] =
    "Rights: 0x0      none\n"
    "        0x1      user\n"
    "        0x3      power user\n"
    "        0x7      administrator\n"
    "        0x40007  administrator, superuser: the operating system's own administrator\n\n"
    "If the role map cannot be used, the answer goes by the agent's built-in records, and standard error or\n"
    "the JSON says so. The command log gets an entry then, as it does when the agent asks.\n\n";

}  // namespace

void AddLoginCommands(CLI::App &app, int &exitStatus) {
  const auto arguments = std::make_shared<Arguments>();
  const auto add = [&app, &arguments, &exitStatus](const char *name, const char *description, const std::string &footer,
                                                   int (*run)(const Arguments &)) {
    CLI::App *const command = app.add_subcommand(name, description);
    command->add_flag("--json", arguments->asJSON, "Print JSON, for scripts");
    command->footer(footer + kSharedExitStatuses);
    command->callback([arguments, &exitStatus, run] { exitStatus = run(*arguments); });
    return command;
  };

  CLI::App *const login =
      add("login", "Logs a user in as the agent does and prints his rights.",
          std::string("The password is asked for, without showing it, if standard input is a terminal; else it is the\n"
                      "first line of standard input. The name, the domain and the password must be ASCII. No session\n"
                      "is opened. Put -- in front of a USER that begins with a hyphen.\n\n") +
              kRightsHelp +
              "Exit status: 0  the login was accepted\n"
              "             1  it was refused, or there was no password to try with, and standard error or the\n"
              "                JSON says what may be the reason\n",
          Login);
  login->add_option("USER", arguments->user, "Account, as it logs in")->required();
  login->add_option_function<std::string>(
      "--domain", [arguments](const std::string &domain) { arguments->domain = domain; },
      "Domain to log in to: PAM is asked about USER@DOMAIN, and the role map about USER on host DOMAIN");

  CLI::App *const rights =
      add("rights", "Prints the rights of a user, for which no password is asked.",
          std::string("A USER without a host is one on this machine. Of HOST\\USER, the role map is asked about USER,\n"
                      "and the operating system about an account with the name HOST, as it is for the agent. Put --\n"
                      "in front of a USER that begins with a hyphen.\n\n") +
              kRightsHelp +
              "Exit status: 0  the user has rights\n"
              "             1  the user has none\n",
          Rights);
  rights->add_option("USER", arguments->user, "USER, USER@HOST or HOST\\USER")->required();

  add("whoami", "Prints the rights, the account and the domain of zebctl's own process.",
      std::string("The rights of the process go by its user and group, those by the role map by its account on this\n"
                  "machine. A - stands for what there is not.\n\n") +
          kRightsHelp + "Exit status: 0  success\n",
      WhoAmI);
}
