#include "p4rt/server/ReadStream.h"

#include <utility>

namespace P4rt {

void ReadStream::add(p4::v1::ReadResponse&& response) {
  if (response.ByteSizeLong() <= mostBytes) {
    responses_.push_back(std::move(response));
    return;
  }
  std::size_t size = mostBytes;
  for (p4::v1::Entity& entity : *response.mutable_entities()) {
    size += entity.ByteSizeLong();
    if (size > mostBytes) {
      size = entity.ByteSizeLong();
      responses_.emplace_back();
    }
    responses_.back().add_entities()->Swap(&entity);
  }
}

void ReadStream::finish(grpc::Status status, std::function<void()> closed) {
  status_ = std::move(status);
  closed_ = std::move(closed);
  timer_ = loop_.after(longestPause, [this] { watch(); });
  sendNext();
}

void ReadStream::sendNext() {
  const std::size_t next = sent_;
  if (next < responses_.size()) {
    StartWrite(&responses_[next]);
  } else {
    end();
  }
}

void ReadStream::end() {
  loop_.post([this] {
    finished_ = true;
    Finish(status_);
  });
}

void ReadStream::OnWriteDone(bool good) {
  responses_[sent_].Clear();
  ++sent_;
  if (good) {
    sendNext();
  } else {
    end();
  }
}

void ReadStream::watch() {
  const std::size_t sent = sent_;
  if (sent == sentBefore_ && !finished_) {
    context_.TryCancel();
  }
  sentBefore_ = sent;
  timer_ = loop_.after(longestPause, [this] { watch(); });
}

void ReadStream::OnDone() {
  loop_.post([this] {
    loop_.cancel(timer_);
    closed_();
    delete this;
  });
}

}  // namespace P4rt
