#include <pwd.h>

#include <set>
#include <vector>

#include "characters.h"
#include "context.h"
#include "entry.h"
#include "name.h"
#include "verbs.h"

namespace tkv::command {
namespace {

// The scripts hold no knowledge of the command: they ask it for candidates, one a line, and for files where it says
// ":files".
constexpr const char* kBash = R"sh(_tkv() {
  local IFS=$'\n'
  local candidates
  candidates=$(tkv complete -- "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null) || return
  if [ "$candidates" = ":files" ]; then
    compopt -o filenames
    COMPREPLY=($(compgen -f -- "${COMP_WORDS[COMP_CWORD]}"))
    return
  fi
  COMPREPLY=()
  local candidate
  for candidate in $candidates; do COMPREPLY+=("$(printf %q "$candidate")"); done
}
complete -F _tkv tkv
)sh";

constexpr const char* kZsh = R"sh(#compdef tkv
_tkv() {
  local -a candidates
  candidates=("${(@f)$(tkv complete -- "${(@)words[2,CURRENT]}" 2>/dev/null)}")
  if [[ "${candidates[1]}" == ":files" ]]; then
    _files
  else
    compadd -a candidates
  fi
}
if [[ "${funcstack[1]}" == _tkv ]]; then _tkv "$@"; else compdef _tkv tkv; fi
)sh";

constexpr const char* kFish = R"sh(function __tkv_candidates
    set -l words (commandline -opc) (commandline -ct)
    set -l candidates (tkv complete -- $words[2..-1] 2>/dev/null)
    if test "$candidates" = ":files"
        __fish_complete_path (commandline -ct)
    else
        printf '%s\n' $candidates
    end
end
complete -c tkv -f -a '(__tkv_candidates)'
)sh";

class Completion {
 public:
  Completion(Context& context, const std::vector<std::string>& words) : context_(context) {
    if (!words.empty()) word_ = words.back();
    for (std::size_t at = 0; at + 1 < words.size(); ++at) take(words[at]);
  }

  void print() {
    if (expects_ != nullptr) {
      offer(expects_->kind);
    } else if (verb_ == nullptr) {
      word_.starts_with('-') ? offer_options() : offer_verbs();
    } else if (word_.starts_with('-') && !only_operands_) {
      offer_options();
    } else {
      offer_operand();
    }
  }

 private:
  // One word that is complete.
  void take(const std::string& word) {
    if (expects_ != nullptr) {
      expects_ = nullptr;
    } else if (word == "--") {
      only_operands_ = true;
    } else if (word.starts_with('-') && word != "-" && !only_operands_) {
      expects_ = option_with_argument(word);
    } else if (verb_ == nullptr) {
      verb_ = find_verb(word);
    } else {
      ++operands_;
    }
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
    if (text.starts_with(word_)) context_.output().line(text);
  }

  void offer_verbs() {
    for (const Verb& verb : all_verbs()) {
      if (!verb.hidden) candidate(verb.name);
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
        const bool file = operand.kind == Kind::kFile && operand.many != nullptr;  // a value, that may be @FILE
        if (!file) offer(operand.kind);
        return;
      }
    }
  }

  void offer(Kind kind) {
    if (kind == Kind::kKey) offer_keys();
    if (kind == Kind::kVerb) offer_verbs();
    if (kind == Kind::kUser) offer_users();
    if (kind == Kind::kFile) context_.output().line(":files");
    if (kind == Kind::kShell) {
      for (const char* shell : {"bash", "fish", "zsh"}) candidate(shell);
    }
    if (kind == Kind::kReading) {
      for (const char* reading : {"auto", "text", "list", "number", "hex", "raw"}) candidate(reading);
    }
  }

  void offer_users() {
    setpwent();
    while (const passwd* user = getpwent()) candidate(user->pw_name);
    endpwent();
  }

  // The subkeys of the last level that is complete. What goes wrong offers nothing: this is no place for messages.
  void offer_keys() {
    const std::size_t end = word_.rfind('.');
    const std::string parent = end == std::string::npos ? "" : stored_from_utf8(word_.substr(0, end));
    if (!context_.open_to_read().ok()) return;
    (void)context_.registry()
        .read_all([&](registry::Reader& reader) {
          return reader.list(parent, [&](std::string_view level, const store::Node&) {
            const std::string name = utf8_for_people(child_name(parent, level));
            if (safe(name) == name) candidate(name);
            return Status();
          });
        })
        .ok();
  }

  Context& context_;
  std::string word_;
  const Verb* verb_ = nullptr;
  const Option* expects_ = nullptr;
  std::size_t operands_ = 0;
  bool only_operands_ = false;
};

}  // namespace

Outcome run_completion(Context& context, const Arguments& arguments) {
  const std::string& shell = *arguments.key;
  if (shell == "bash") {
    context.output().write(kBash);
  } else if (shell == "zsh") {
    context.output().write(kZsh);
  } else if (shell == "fish") {
    context.output().write(kFish);
  } else {
    return {Exit::kUsage, "'" + shell + "' is not one of bash, zsh and fish"};
  }
  return {};
}

Outcome run_complete(Context& context, const Arguments& arguments) {
  Completion(context, arguments.words).print();
  return {};
}

}  // namespace tkv::command
