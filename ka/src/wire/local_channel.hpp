#pragma once
// An in-process pair of channels: what one end sends, the other receives. It carries the
// "local://" endpoints of sessions in one process, and lets tests slow a link down or cut it the
// way a network would.

#include "wire/channel.hpp"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>

namespace ka {
namespace wire {

class LocalChannel : public Channel {
 public:
  // Two connected ends; each delivers what it receives on a thread of its own. `description`
  // is what both ends answer for peerDescription().
  static std::pair<std::shared_ptr<LocalChannel>, std::shared_ptr<LocalChannel>> makePair(
      const std::string& description);

  ~LocalChannel() override;

  void start(FrameHandler onFrame, CloseHandler onClose) override;
  bool send(Frame frame) override;
  // Frames this end queued before still reach the peer, then both ends close with `reason`.
  void close(const std::string& reason) override;
  bool isOpen() const override;
  std::string peerDescription() const override;

  // Failure injection, for tests.
  // Every frame this end receives from now on waits `delay` before it is delivered.
  void setDeliveryDelay(std::chrono::milliseconds delay);
  // Fails the link as a network would: both ends close with `reason` and frames still in
  // flight either way are lost.
  void cut(const std::string& reason);
  // Cuts the link (with `reason`) instead of sending the `n`-th frame sent from now on.
  void cutOnSend(std::size_t n, const std::string& reason);
  // Sees every frame this end sends, before it goes; runs on the sending thread.
  void observeSends(std::function<void(const Frame&)> observer);

  struct Link;

 private:
  // Only makePair() makes ends (through make_shared, hence a public constructor taking this).
  struct Key {};

 public:
  LocalChannel(Key, std::shared_ptr<Link> link, int side);

 private:
  const std::shared_ptr<Link> _link;
  const int _side;
  // Written once by start(), joined by the destructor (or, when the last handle goes on that
  // very thread, handed to a registry that joins it later).
  std::thread _thread;
  // Set by the delivery thread as it ends.
  const std::shared_ptr<std::atomic<bool>> _finished = std::make_shared<std::atomic<bool>>(false);
};

}  // namespace wire
}  // namespace ka
