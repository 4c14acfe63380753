#include "reader_pool.hpp"

#include <algorithm>

namespace QV::detail {

ReaderPool::ReaderPool(const std::string& path, const TripletStoreOptions& options,
                       std::size_t count) {
  count = std::max<std::size_t>(count, 1);
  idle_.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    idle_.push_back(std::make_unique<ReaderConnection>(path, options));
  }
}

ReaderPool::Lease ReaderPool::checkout() {
  std::unique_lock lock(mutex_);
  returned_.wait(lock, [this] { return !idle_.empty(); });
  std::unique_ptr<ReaderConnection> connection = std::move(idle_.back());
  idle_.pop_back();
  return Lease(*this, std::move(connection));
}

void ReaderPool::giveBack(std::unique_ptr<ReaderConnection> connection) {
  {
    std::lock_guard lock(mutex_);
    idle_.push_back(std::move(connection));
  }
  returned_.notify_one();
}

}  // namespace QV::detail
