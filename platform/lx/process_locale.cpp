#include "lx/process_locale.h"

#include <langinfo.h>
#include <locale.h>

#include <cstdlib>
#include <mutex>
#include <string>

namespace tkv::lx {
namespace {

constexpr const char* kDefaultCharset = "UTF-8";

bool is_c_locale(std::string_view name) { return name == "C" || name == "POSIX"; }

// Returns the character set of an installed locale, or "" if there is no locale of that name.
std::string installed_charset(std::string_view name) {
  const locale_t locale = newlocale(LC_CTYPE_MASK, std::string(name).c_str(), static_cast<locale_t>(nullptr));
  if (locale == static_cast<locale_t>(nullptr)) return {};
  std::string charset = nl_langinfo_l(CODESET, locale);
  freelocale(locale);
  return charset;
}

const char* environment(const char* name) {
  const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): callers do not change the environment
  return value == nullptr || *value == '\0' ? nullptr : value;
}

const Charset* find_charset(std::string_view name) {
  return Charset::find(is_c_locale(name) ? std::string_view(kDefaultCharset) : name);
}

// Caches the last answer: a process seldom changes its environment, while finding a character set is slow, and looking
// up a locale reads files.
class LastAnswer {
 public:
  explicit LastAnswer(const Charset* (*ask)(std::string_view)) : ask_(ask) {}

  const Charset* to(const char* question) {
    const std::lock_guard lock(mutex_);
    // A set that was not found is looked up again, because there may have been no memory or no descriptor for it.
    if (charset_ == nullptr || question_ != question) {
      charset_ = nullptr;
      question_ = question;
      charset_ = ask_(question_);
    }
    return charset_;
  }

 private:
  const Charset* (*const ask_)(std::string_view);
  std::mutex mutex_;
  std::string question_;
  const Charset* charset_ = nullptr;
};

}  // namespace

const Charset* charset_of_locale(std::string_view locale) {
  const std::size_t at = locale.find('@');
  const std::string_view modifier = at == std::string_view::npos ? std::string_view() : locale.substr(at + 1);
  const std::string_view base = locale.substr(0, at);
  const std::size_t dot = base.find('.');
  if (dot != std::string_view::npos && dot + 1 < base.size()) return Charset::find(base.substr(dot + 1));
  if (is_c_locale(base.substr(0, dot))) return Charset::find(kDefaultCharset);
  const std::string charset = installed_charset(locale);
  if (!charset.empty()) return find_charset(charset);
  return Charset::find(modifier == "euro" ? "ISO-8859-15" : kDefaultCharset);
}

const Charset* charset_of_process() {
  // Never destroyed: other threads may still convert while the process exits.
  static LastAnswer& of_charset = *new LastAnswer(find_charset);
  static LastAnswer& of_locale = *new LastAnswer(charset_of_locale);
  if (const char* charset = environment("TKV_CHARSET")) return of_charset.to(charset);
  for (const char* name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
    if (const char* locale = environment(name)) return of_locale.to(locale);
  }
  return of_locale.to("C");
}

}  // namespace tkv::lx
