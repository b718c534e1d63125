#include "Tolan/FdToStream.h"

#include <fcntl.h>

#include <boost/iostreams/device/file_descriptor.hpp>
#include <boost/iostreams/stream_buffer.hpp>

#include "Tolan/Assert.h"

// The stream buffer is Boost's over a file_descriptor_sink that never closes
// its handle; it stays here, behind a pointer, so that users of the header do
// not compile Boost.IOStreams. A device write that fails throws inside the
// buffer; std::ostream turns that into badbit and rethrows it only when
// badbit is in exceptions(), which is what `throwOnError` sets.

namespace Tolan {

class FdToStream::Buffer
    : public boost::iostreams::stream_buffer<boost::iostreams::file_descriptor_sink> {
 public:
  explicit Buffer(int fd)
      : boost::iostreams::stream_buffer<boost::iostreams::file_descriptor_sink>(
            boost::iostreams::file_descriptor_sink(fd, boost::iostreams::never_close_handle)) {}
};

FdToStream::FdToStream(int fd, bool throwOnError) : std::ostream(nullptr), fd_(fd) {
  // A descriptor the kernel does not know is not refused here: its first
  // write fails like any other.
  const int flags = fcntl(fd, F_GETFL);
  TOLAN_ASSERT(flags < 0 || (flags & O_NONBLOCK) == 0, "fd {} is non-blocking, not supported", fd);
  buffer_ = std::make_unique<Buffer>(fd);
  rdbuf(buffer_.get());
  if (throwOnError) exceptions(std::ios_base::badbit);
}

FdToStream::~FdToStream() {
  exceptions(std::ios_base::goodbit);
  flush();
  rdbuf(nullptr);
}

}  // namespace Tolan
