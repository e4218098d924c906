#include "net/block_lane.h"

#include <boost/asio/buffer.hpp>

#include <algorithm>

namespace tarvex::server {

data_socket::moved block_lane::read_now() {
  std::copy(bytes_.begin() + static_cast<std::ptrdiff_t>(begin_), bytes_.begin() + static_cast<std::ptrdiff_t>(end_),
            bytes_.begin());
  end_ -= std::exchange(begin_, 0);
  const data_socket::moved got = socket->read_now(boost::asio::buffer(bytes_.data() + end_, bytes_.size() - end_));
  end_ += got.bytes;
  return got;
}

}  // namespace tarvex::server
