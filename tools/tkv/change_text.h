// Changes of the log as people and programs read them.
#ifndef TKV_TOOLS_TKV_CHANGE_TEXT_H
#define TKV_TOOLS_TKV_CHANGE_TEXT_H

#include <string>

#include "base/change.h"
#include "json.h"

namespace tkv::command {

// "created", "value", "security", "moved", "deleted", or "subtree" for many changes at or below a key.
const char* kind_name(Change::Kind kind);

// "value app.limit", "moved app.a to app.b".
std::string change_text(const Change& change);

// The first few changes of a record, and how many more there are.
std::string changes_text(const ChangeRecord& record);

// "ada on node1, tkv (4711)".
std::string author_text(const ChangeRecord& record);

// Adds "kind", "name" and, of a move, "from".
void add_change(const Change& change, JsonObject* object);

// Adds "revision", "time", "author", "host", "program", "process" and, if there is one, "note".
void add_author(const ChangeRecord& record, JsonObject* object);

}  // namespace tkv::command

#endif
