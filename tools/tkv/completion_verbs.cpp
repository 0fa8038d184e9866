#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <utility>
#include <vector>

#include "characters.h"
#include "context.h"
#include "json.h"
#include "records.h"
#include "verb_syntax.h"

namespace tkv::command {
namespace {

// The scripts know nothing about the command. They pass it the words up to the cursor as the shell will read them,
// without quotes, and it prints the candidates, one per line, or ":files" where the shell should offer files.
//
// bash also splits words at ":", "=" and "@", and replaces only what follows the last of these. The script therefore
// parses the line itself, and strips what precedes such a character from the candidates.
constexpr const char* kBash = R"sh(_tkv_split() {
  local line=$1 quote= word= begun= char
  words=()
  while [ -n "$line" ]; do
    char=${line:0:1} line=${line:1}
    case $quote$char in
      [\'\"]) quote=$char begun=1 ;;
      "''" | '""') quote= ;;
      \'? | '"'[!\\]) word+=$char ;;
      \\ | '"\') word+=${line:0:1} line=${line:1} begun=1 ;;
      [[:space:]]) [ -n "$begun" ] && words+=("$word"); word= begun= ;;
      *) word+=$char begun=1 ;;
    esac
  done
  words+=("$word")
}

_tkv() {
  local words candidates index lead raw=${COMP_WORDS[COMP_CWORD]}
  _tkv_split "${COMP_LINE:0:COMP_POINT}"
  local word=${words[${#words[@]}-1]}
  mapfile -t candidates < <(tkv complete -- "${words[@]:1}" 2>/dev/null)
  if [ "${candidates[0]}" = ":files" ]; then
    compopt -o filenames
    mapfile -t COMPREPLY < <(compgen -f -- "$word")
    return
  fi
  lead=${word%"${word##*[:=@]}"}
  COMPREPLY=()
  for index in "${!candidates[@]}"; do
    case $raw in
      [\'\"]*) COMPREPLY+=("${candidates[index]}") ;;
      *) COMPREPLY+=("$(printf %q "${candidates[index]#"$lead"}")") ;;
    esac
  done
}
complete -F _tkv tkv
)sh";

constexpr const char* kZsh = R"sh(#compdef tkv
_tkv() {
  local -a candidates
  candidates=(${(f)"$(tkv complete -- "${(@Q)words[2,CURRENT-1]}" "${(Q)PREFIX}" 2>/dev/null)"})
  if [[ "${candidates[1]}" == ":files" ]]; then
    _files
  elif (( ${#candidates} )); then
    compadd -a candidates
  fi
}
if [[ "${funcstack[1]}" == _tkv ]]; then _tkv "$@"; else compdef _tkv tkv; fi
)sh";

constexpr const char* kFish = R"sh(function __tkv_candidates
    set -l word (commandline -ct)
    set -l plain (string unescape -- $word; or string unescape -- $word"'"; or string unescape -- $word'"'; or echo -- $word)
    set -l words (commandline -opc) "$plain"
    set -l candidates (tkv complete -- $words[2..-1] 2>/dev/null)
    if test "$candidates" = ":files"
        __fish_complete_path $word
    else
        string join -- \n $candidates
    end
end
complete -c tkv -f -a '(__tkv_candidates)'
)sh";

constexpr std::uint32_t kPatienceMs = 1000;

const char* script_of(std::string_view shell) {
  if (shell == "bash") return kBash;
  if (shell == "zsh") return kZsh;
  return shell == "fish" ? kFish : nullptr;
}

class Completer {
 public:
  Completer(Context& context, const std::vector<std::string>& words) : context_(context) {
    if (!words.empty()) word_ = words.back();
    for (std::size_t at = 0; at + 1 < words.size(); ++at) take(words[at]);
  }

  void print() {
    if (expects_ != nullptr) {
      offer(expects_->candidates);
    } else if (word_.starts_with("--") && word_.find('=') != std::string::npos && !only_operands_) {
      offer_argument();
    } else if (verb_ == nullptr) {
      word_.starts_with('-') ? offer_options() : offer_verbs();
    } else if (word_.starts_with('-') && !only_operands_) {
      offer_options();
    } else {
      offer_operand();
    }
  }

 private:
  // Offers what follows "--option=", except file names.
  void offer_argument() {
    const std::size_t end = word_.find('=') + 1;
    const Option* option = option_with_argument(word_.substr(0, end - 1));
    lead_ = word_.substr(0, end);
    word_.erase(0, end);
    if (option != nullptr && option->candidates != Candidates::kFiles) offer(option->candidates);
  }

  // Takes a complete word into account.
  void take(const std::string& word) {
    if (expects_ != nullptr) {
      take_argument(*std::exchange(expects_, nullptr), word);
    } else if (word == "--") {
      only_operands_ = true;
    } else if (word.starts_with('-') && word != "-" && !only_operands_) {
      take_option(word);
    } else if (verb_ == nullptr) {
      verb_ = find_verb(word);
    } else {
      ++operands_;
    }
  }

  void take_option(const std::string& word) {
    const std::size_t end = word.starts_with("--") ? word.find('=') : std::string::npos;
    const Option* option = option_with_argument(word.substr(0, end));
    if (end == std::string::npos) {
      expects_ = option;
    } else if (option != nullptr) {
      take_argument(*option, word.substr(end + 1));
    }
  }

  // The keys to offer are those of the registry that the command line names.
  void take_argument(const Option& option, const std::string& argument) {
    if (option.value != &Arguments::configuration) return;
    const char* home = std::getenv("HOME");
    const bool at_home = home != nullptr && argument.starts_with("~/");
    setenv("TKV_CONF", at_home ? (home + argument.substr(1)).c_str() : argument.c_str(), 1);
  }

  std::span<const Option> verb_options() const { return verb_ == nullptr ? std::span<const Option>() : verb_->options; }

  const Option* option_with_argument(const std::string& word) const {
    for (const std::span<const Option> options : {common_options(), verb_options()}) {
      for (const Option& option : options) {
        const bool named = ("," + std::string(option.names) + ",").find("," + word + ",") != std::string::npos;
        if (named && option.argument != nullptr) return &option;
      }
    }
    return nullptr;
  }

  void candidate(std::string_view text) {
    if (text.starts_with(word_)) context_.output().line(lead_ + std::string(text));
  }

  void offer_verbs() {
    for (const Verb* verb : all_verbs()) {
      if (!verb->hidden) candidate(verb->name);
    }
  }

  void offer_options() {
    for (const std::span<const Option> options : {common_options(), verb_options()}) {
      for (const Option& option : options) {
        const std::string names = option.names;
        candidate(names.substr(names.find("--")));
      }
    }
    candidate("--help");
    if (verb_ == nullptr) candidate("--version");
  }

  void offer_operand() {
    std::size_t at = 0;
    for (const Operand& operand : verb_->operands) {
      if (at++ == operands_ || operand.many != nullptr) {
        const bool file =
            operand.candidates == Candidates::kFiles && operand.many != nullptr;  // a value, perhaps @FILE
        if (!file) offer(operand.candidates);
        return;
      }
    }
  }

  void offer(Candidates kind) {
    if (kind == Candidates::kKeys) offer_keys();
    if (kind == Candidates::kVerbs) offer_verbs();
    if (kind == Candidates::kUsers) offer_users();
    if (kind == Candidates::kGroups) offer_groups();
    if (kind == Candidates::kFiles) context_.output().line(":files");
    if (kind == Candidates::kShells) {
      for (const char* shell : {"bash", "fish", "zsh"}) candidate(shell);
    }
    if (kind == Candidates::kHistoryActions) candidate("purge");
    if (kind == Candidates::kReadings) {
      for (const char* reading : {"auto", "text", "list", "number", "hex", "raw"}) candidate(reading);
    }
  }

  void offer_users() {
    setpwent();
    while (const passwd* user = getpwent()) candidate(user->pw_name);
    endpwent();
  }

  void offer_groups() {
    setgrent();
    while (const group* one = getgrent()) candidate(one->gr_name);
    endgrent();
  }

  // Offers the subkeys of the last complete level. If only one fits, its own subkeys are offered too, so that the shell
  // does not take the name for finished. Failures offer nothing: this is no place for messages.
  void offer_keys() {
    const std::size_t end = word_.rfind('.');
    const std::string parent = end == std::string::npos ? "" : stored_from_utf8(word_.substr(0, end));
    if (!open().ok()) return;
    std::vector<std::string> names = subkeys_of(parent);
    std::erase_if(names, [&](const std::string& name) { return !utf8_for_people(name).starts_with(word_); });
    if (names.size() == 1) {
      const std::vector<std::string> below = subkeys_of(names.front());
      names.insert(names.end(), below.begin(), below.end());
    }
    for (const std::string& name : names) candidate(utf8_for_people(name));
  }

  // The full names of the subkeys whose names can be typed.
  std::vector<std::string> subkeys_of(const std::string& parent) {
    std::vector<std::string> names;
    const auto collect = [&](const registry::Subkey& subkey) {
      std::string name = child_name(parent, subkey.level);
      const std::string shown = utf8_for_people(name);
      if (safe(shown) == shown) names.push_back(std::move(name));
      return Status();
    };
    (void)client_->list(parent, false, collect).ok();
    return names;
  }

  // A person is waiting: a cluster that does not answer at once offers nothing.
  Outcome open() {
    registry::Configuration configuration;
    if (Status status = registry::Configuration::read(&configuration); !status.ok()) return status;
    return open_registry(std::move(configuration), {false, true, kPatienceMs}, &client_);
  }

  Context& context_;
  std::shared_ptr<registry::Client> client_;
  std::string word_;
  std::string lead_;  // what precedes the word in each candidate
  const Verb* verb_ = nullptr;
  const Option* expects_ = nullptr;
  std::size_t operands_ = 0;
  bool only_operands_ = false;
};

Outcome run_completion(Context& context, const Arguments& arguments) {
  const std::string& shell = *arguments.key;
  const char* const script = script_of(shell);
  if (script == nullptr) return {Exit::kUsage, "'" + shell + "' is not one of bash, zsh and fish"};
  if (context.json()) {
    context.output().line(JsonObject().utf8("shell", shell).utf8("script", script).str());
  } else {
    context.output().write(script);
  }
  return {};
}

Outcome run_complete(Context& context, const Arguments& arguments) {
  Completer(context, arguments.words).print();
  return {};
}

constexpr std::array kShellOperands{one("SHELL", "bash, zsh or fish", true, &Arguments::key, Candidates::kShells)};
constexpr std::array kWordOperands{
    many("WORD", "Words of the command line so far", false, &Arguments::words, Candidates::kNone)};

}  // namespace

constinit const Verb kCompletionVerb{
    .name = "completion",
    .summary = "Print the completion script of a shell",
    .details = "The script completes verbs, options, files, users, and the names of keys in the\nregistry.\n",
    .examples = R"(  source <(tkv completion bash)
  tkv completion zsh > "${fpath[1]}/_tkv"
  tkv completion fish > ~/.config/fish/completions/tkv.fish
)",
    .operands = kShellOperands,
    .options = {},
    .run = run_completion};

constinit const Verb kCompleteVerb{.name = "complete",
                                   .summary = "Print the candidates for the last word",
                                   .details = "",
                                   .examples = "",
                                   .operands = kWordOperands,
                                   .options = {},
                                   .run = run_complete,
                                   .hidden = true};

}  // namespace tkv::command
