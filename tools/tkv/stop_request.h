// StopRequest: how a verb that runs until it is told to stop ends in good order.
//
// From its construction on, SIGINT, SIGTERM and SIGHUP no longer end the process but request a stop; with
// `OutputReader::kWatched`, so does the reader of standard output by closing its end. A second signal ends the process
// at once.
//
// There is at most one. It is made before anything that starts threads, since threads inherit which signals are
// blocked.
#ifndef TKV_TOOLS_TKV_STOP_REQUEST_H
#define TKV_TOOLS_TKV_STOP_REQUEST_H

#include <chrono>
#include <csignal>
#include <stop_token>
#include <thread>

namespace tkv::command {

class StopRequest {
 public:
  enum class OutputReader { kWatched, kIgnored };

  explicit StopRequest(OutputReader reader);
  ~StopRequest();
  StopRequest(const StopRequest&) = delete;
  StopRequest& operator=(const StopRequest&) = delete;

  std::stop_token token() const { return source_.get_token(); }
  bool made() const { return source_.stop_requested(); }

  // A descriptor that is readable once a stop was requested. Not to be read from.
  int descriptor() const { return stopped_; }

  // Waits for a stop, or until the time has passed.
  void wait_for(std::chrono::milliseconds time) const;

  // What was blocked before: for child processes.
  const sigset_t& former_mask() const { return former_mask_; }

 private:
  void watch(bool output);
  void take_signal();
  void request();

  std::stop_source source_;
  sigset_t former_mask_{};
  int signals_ = -1;
  int stopped_ = -1;
  int ended_ = -1;  // readable when this object ends
  std::thread thread_;
};

}  // namespace tkv::command

#endif
