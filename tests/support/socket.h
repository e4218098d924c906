#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/// A connected or listening TCP socket on loopback whose reads and writes give up after a generous time, so that no
/// test waits for ever. Movable; closes what it owns.
class loopback_socket {
 public:
  loopback_socket() = default;
  explicit loopback_socket(int descriptor);  ///< owned from now on
  ~loopback_socket();
  loopback_socket(loopback_socket&& other) noexcept;
  loopback_socket& operator=(loopback_socket&& other) noexcept;

  /// Listens on a free port.
  static loopback_socket listener(bool ipv6 = false);
  /// `from`: IPv4 address to come from; empty: any. No descriptor (below 0) when it is refused.
  static loopback_socket connect(std::uint16_t port, const std::string& from = {}, bool ipv6 = false);
  [[nodiscard]] loopback_socket accept() const;
  [[nodiscard]] std::uint16_t port() const;

  /// \return false when the peer is gone.
  bool write(std::string_view bytes) const;
  /// Up to `most` bytes; empty at the end or when it was reset.
  [[nodiscard]] std::string read(std::size_t most = 65536) const;
  [[nodiscard]] std::string read_all() const;
  /// Without its line end; empty at the end.
  [[nodiscard]] std::string read_line() const;

  /// Nothing more is sent; replies can still be read.
  void half_close() const;
  /// Closes with a reset.
  void reset();
  void close();
  int release();
  [[nodiscard]] int descriptor() const { return descriptor_; }

 private:
  int descriptor_ = -1;
};
