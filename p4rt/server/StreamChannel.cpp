#include "p4rt/server/StreamChannel.h"

#include <utility>

namespace P4rt {

void StreamChannel::start(StreamId id) {
  id_ = id;
  readNext();
}

void StreamChannel::send(Response message) {
  if (ending_ || cutOff_) {
    return;
  }
  if (outgoing_.size() == mostWaiting) {
    cutOff_ = true;
    cancel();  // OnCancel() does the rest
    return;
  }
  outgoing_.push_back(std::move(message));
  writeNext();
}

void StreamChannel::end(const grpc::Status& status) {
  if (ending_) {
    return;
  }
  ending_ = status;
  writeNext();
  if (!finished_) {
    endTimer_ = loop_.after(longestEnd, [this] { cancel(); });
  }
}

// Reading stops while many answers wait, so that a client which does not take them cannot add more.
void StreamChannel::readNext() {
  if (!reading_ && !ending_ && outgoing_.size() < mostWaiting / 2) {
    reading_ = true;
    StartRead(&request_);
  }
}

void StreamChannel::writeNext() {
  if (writing_ || finished_) {
    return;
  }
  if (!outgoing_.empty()) {
    writing_ = true;
    StartWrite(&outgoing_.front());
  } else if (ending_) {
    finished_ = true;
    Finish(*ending_);
  }
}

void StreamChannel::cancel() {
  // After Finish() the RPC may end, and its context with it, at any time.
  if (!finished_) {
    context_.TryCancel();
  }
}

void StreamChannel::handleLoss() {
  if (outgoing_.size() > (writing_ ? 1U : 0U)) {
    outgoing_.resize(writing_ ? 1 : 0);
  }
  if (!ending_) {
    ending_ = grpc::Status::OK;
    owner_.left(*this);
  }
  writeNext();
}

void StreamChannel::OnReadDone(bool good) {
  loop_.post([this, good] {
    reading_ = false;
    if (!good) {
      handleLoss();
    } else if (!ending_) {
      owner_.received(*this, request_);
      readNext();
    }
  });
}

void StreamChannel::OnWriteDone(bool good) {
  loop_.post([this, good] {
    writing_ = false;
    outgoing_.pop_front();
    if (good) {
      writeNext();
      readNext();
    } else {
      handleLoss();
    }
  });
}

void StreamChannel::OnCancel() {
  loop_.post([this] { handleLoss(); });
}

void StreamChannel::OnDone() {
  loop_.post([this] {
    loop_.cancel(endTimer_);
    owner_.closed(*this);
    delete this;
  });
}

}  // namespace P4rt
