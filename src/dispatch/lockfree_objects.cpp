// The public face of the lock-free queue and the counted objects it carries.
#include <string.h>

#include <new>

#include "oxa_lockfree.h"
#include "oxa_trace.h"

#include "dispatch/lockfree_queue.h"

namespace oxa {

// ---- oxa_refobj and cobject --------------------------------------------------------

oxa_refobj::oxa_refobj() : ref_count_(0) {}
oxa_refobj::~oxa_refobj() = default;

void oxa_refobj::destroy() { delete this; }

long oxa_refobj::addRef() { return ref_count_.increment(); }

long oxa_refobj::release() {
  const long count = ref_count_.decrement();
  if (count == 0) destroy();
  return count;
}

cobject::cobject() { memset(&m_traceInfo, 0, sizeof(m_traceInfo)); }
cobject::~cobject() = default;

// ---- oxa_lockfreeQ -----------------------------------------------------------------

oxa_lockfreeQ::oxa_lockfreeQ() : impl_(new (std::nothrow) oxa_lockfreeQImpl) {
  if (impl_ != nullptr && !impl_->valid()) {
    delete impl_;
    impl_ = nullptr;
  }
}

oxa_lockfreeQ::~oxa_lockfreeQ() { delete impl_; }

void oxa_lockfreeQ::push_back(cshared_ptr<cobject> element) {
  if (element.get() == nullptr || impl_ == nullptr) return;
  // A thread without a context stamps a zeroed one.
  oxa_tlsTraceInfoOper::instance().getTraceInfo(&element->m_traceInfo);
  cobject* raw = element.detach();  // the queue's reference from here on
  if (!impl_->push_back(raw)) raw->release();
}

cshared_ptr<cobject> oxa_lockfreeQ::pop_front() {
  if (impl_ == nullptr) return cshared_ptr<cobject>();
  cobject* element = impl_->pop_front();
  if (element == nullptr) return cshared_ptr<cobject>();
  oxa_tlsTraceInfoOper::instance().setTraceInfo(element->m_traceInfo);
  return cshared_ptr<cobject>::adopt(element);
}

int oxa_lockfreeQ::empty() const { return impl_ == nullptr || impl_->empty() ? 1 : 0; }

int oxa_lockfreeQ::size() const { return impl_ == nullptr ? OXA_ERROR : impl_->size(); }

}  // namespace oxa
