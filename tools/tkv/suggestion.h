// Suggestions for mistyped words.
#ifndef TKV_TOOLS_TKV_SUGGESTION_H
#define TKV_TOOLS_TKV_SUGGESTION_H

#include <span>
#include <string>
#include <string_view>

namespace tkv::command {

// "; did you mean 'import'?" if one of the candidates is similar to `word`, else "".
std::string suggestion(std::string_view word, std::span<const std::string> candidates);

// The same for the name of a verb.
std::string verb_suggestion(std::string_view word);

}  // namespace tkv::command

#endif
