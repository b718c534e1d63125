// TaskSchedulerPrintContext.h - the frame of one JSON introspection document.
//
// A print context owns the output side of one rendering: it opens the
// document on creation ({"schedulers":{), each rendered snapshot adds one
// member to the inner object (TaskSchedulerSnapshot::renderJson), and
// closeJson() - or the destructor, when nobody closed it - writes the two
// closing braces and flushes. No whitespace is written.
//
//   Tolan::TaskSchedulerPrintContext context(std::cout);
//   snapshot->renderJson(context);
//   context.closeJson();
//
// Costs: output is buffered in 4 KiB blocks and handed to the stream with
// ostream::write; the JSON writer itself never allocates per value.
//
// Threading: one thread at a time, like the stream under it. Any thread may
// render finished snapshots.
#pragma once

#include <iosfwd>
#include <memory>

#include "Tolan/Common.h"

namespace Tolan {

class FdToStream;
namespace Impl {
class JsonWriter;
}

class TOLAN_EXPORT TaskSchedulerPrintContext {
 public:
  // Opens a document on `out`, which must outlive the context.
  explicit TaskSchedulerPrintContext(std::ostream& out);
  // Opens a document on a blocking descriptor (see FdToStream; a
  // non-blocking one is a library assertion). The descriptor stays open.
  TaskSchedulerPrintContext(int fd, bool throwOnError);
  // Closes the document unless closeJson() did; never throws (a stream error
  // stays in the stream's state).
  ~TaskSchedulerPrintContext();
  TaskSchedulerPrintContext(const TaskSchedulerPrintContext&) = delete;
  TaskSchedulerPrintContext& operator=(const TaskSchedulerPrintContext&) = delete;

  // Writes the closing braces and flushes the stream. Closing twice is a
  // library assertion ("JSON already closed").
  void closeJson();
  bool jsonClosed() const noexcept { return closed_; }
  std::ostream& stream() noexcept { return *out_; }

  // The writer, for the library's renderers (Impl/JsonWriter.h).
  Impl::JsonWriter& writer() noexcept { return *writer_; }

 private:
  void open();

  std::unique_ptr<FdToStream> fdStream_;
  std::ostream* out_;
  std::unique_ptr<Impl::JsonWriter> writer_;
  bool closed_ = false;
};

}  // namespace Tolan
