#include "Tolan/TaskSchedulerPrintContext.h"

#include <ostream>

#include "Tolan/Assert.h"
#include "Tolan/FdToStream.h"
#include "Tolan/Impl/JsonWriter.h"

namespace Tolan {

TaskSchedulerPrintContext::TaskSchedulerPrintContext(std::ostream& out)
    : out_(&out), writer_(std::make_unique<Impl::JsonWriter>(out)) {
  open();
}

TaskSchedulerPrintContext::TaskSchedulerPrintContext(int fd, bool throwOnError)
    : fdStream_(std::make_unique<FdToStream>(fd, throwOnError)),
      out_(fdStream_.get()),
      writer_(std::make_unique<Impl::JsonWriter>(*fdStream_)) {
  open();
}

void TaskSchedulerPrintContext::open() {
  writer_->StartObject();
  writer_->Key("schedulers");
  writer_->StartObject();
}

TaskSchedulerPrintContext::~TaskSchedulerPrintContext() {
  if (closed_) return;
  // A stream that throws on errors (FdToStream with throwOnError) must not
  // throw out of a destructor; its state keeps the error.
  try {
    closeJson();
  } catch (...) {
  }
}

void TaskSchedulerPrintContext::closeJson() {
  TOLAN_ASSERT_C(!closed_, TaskSchedulerPrintContext, "JSON already closed");
  closed_ = true;
  writer_->EndObject();
  writer_->EndObject();  // the document is complete: the writer hands its block over
  writer_->flushBlock();
  out_->flush();
}

}  // namespace Tolan
