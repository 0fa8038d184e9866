#include "request_watch.h"

#include <grpcpp/grpcpp.h>
#include <grpcpp/support/client_interceptor.h>

namespace tkv::store::etcd {

using grpc::experimental::InterceptionHookPoints;

class WatchingInterceptor final : public grpc::experimental::Interceptor {
 public:
  WatchingInterceptor(RequestWatch* watch, Fate fate) : watch_(watch), fate_(fate) {}

  void Intercept(grpc::experimental::InterceptorBatchMethods* methods) override {
    if (fate_ == Fate::kLoseRequest) {
      answer_instead(methods, {grpc::StatusCode::UNAVAILABLE, "the request was lost on the way"});
      return;
    }
    if (fate_ == Fate::kRefuse) {
      answer_instead(methods, {grpc::StatusCode::PERMISSION_DENIED, "the test refuses it"});
      return;
    }
    if (methods->QueryInterceptionHookPoint(InterceptionHookPoints::POST_RECV_MESSAGE)) {
      if (auto* message = static_cast<google::protobuf::MessageLite*>(methods->GetRecvMessage())) {
        watch_->note_answer(message->ByteSizeLong());
      }
    }
    if (fate_ == Fate::kLoseAnswer && methods->QueryInterceptionHookPoint(InterceptionHookPoints::POST_RECV_STATUS)) {
      *methods->GetRecvStatus() = grpc::Status(grpc::StatusCode::UNAVAILABLE, "the answer was lost on the way");
    }
    methods->Proceed();
  }

 private:
  static void answer_instead(grpc::experimental::InterceptorBatchMethods* methods, const grpc::Status& status) {
    if (methods->QueryInterceptionHookPoint(InterceptionHookPoints::PRE_RECV_MESSAGE)) {
      methods->FailHijackedRecvMessage();
    }
    if (methods->QueryInterceptionHookPoint(InterceptionHookPoints::PRE_RECV_STATUS)) {
      *methods->GetRecvStatus() = status;
    }
    if (methods->QueryInterceptionHookPoint(InterceptionHookPoints::PRE_SEND_INITIAL_METADATA)) {
      methods->Hijack();
    } else {
      methods->Proceed();
    }
  }

  RequestWatch* watch_;
  Fate fate_;
};

class WatchingInterceptorFactory final : public grpc::experimental::ClientInterceptorFactoryInterface {
 public:
  explicit WatchingInterceptorFactory(RequestWatch* watch) : watch_(watch) {}

  grpc::experimental::Interceptor* CreateClientInterceptor(grpc::experimental::ClientRpcInfo* info) override {
    return new WatchingInterceptor(watch_, watch_->begin(info->method()));
  }

 private:
  RequestWatch* watch_;
};

std::function<Interceptors()> RequestWatch::interceptors() {
  return [this] {
    Interceptors factories;
    factories.push_back(std::make_unique<WatchingInterceptorFactory>(this));
    return factories;
  };
}

void RequestWatch::decide(std::function<Fate(const std::string& method)> decide) {
  const std::lock_guard lock(mutex_);
  decide_ = std::move(decide);
}

Fate RequestWatch::begin(const std::string& method) {
  // Sent when the time has come, whatever the store is asked to do.
  if (method.ends_with("LeaseKeepAlive")) return Fate::kPass;
  ++count_;
  const std::lock_guard lock(mutex_);
  return decide_ ? decide_(method) : Fate::kPass;
}

void RequestWatch::note_answer(std::size_t bytes) {
  answered_ += bytes;
  std::size_t known = largest_answer_;
  while (bytes > known && !largest_answer_.compare_exchange_weak(known, bytes)) {
  }
}

}  // namespace tkv::store::etcd
