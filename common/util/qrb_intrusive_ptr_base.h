// The intrusive reference count shared by items and images, used through boost::intrusive_ptr.
// Objects start at count 0; the last release deletes through the virtual destructor. The count
// is atomic so that the cache, a worker and a caller may hold one object at once. A count that
// has gone negative (a release without its reference) or a null object stops the process, in
// every build type.
#ifndef QRB_COMMON_INTRUSIVE_PTR_BASE_H
#define QRB_COMMON_INTRUSIVE_PTR_BASE_H

#include "qrb_assert.h"

#include <boost/intrusive_ptr.hpp>

#include <atomic>
#include <cstdint>

template <class T>
class QRB_IntrusivePtr_Base {
public:
    QRB_IntrusivePtr_Base() : ref_count(0) {}
    QRB_IntrusivePtr_Base(const QRB_IntrusivePtr_Base&) : ref_count(0) {}
    QRB_IntrusivePtr_Base& operator=(const QRB_IntrusivePtr_Base&) { return *this; }
    virtual ~QRB_IntrusivePtr_Base() = default;

    friend void intrusive_ptr_add_ref(const QRB_IntrusivePtr_Base<T>* s) {
        QRB_ASSERT(s->ref_count >= 0);
        s->ref_count.fetch_add(1, std::memory_order_relaxed);
    }

    friend void intrusive_ptr_release(const QRB_IntrusivePtr_Base<T>* s) {
        QRB_ASSERT(s != 0);
        QRB_ASSERT(s->ref_count >= 0);
        if (s->ref_count.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            delete s;  // virtual destructor: the derived object goes
        }
    }

    int32_t RefCount() const { return ref_count.load(); }

private:
    mutable std::atomic<int32_t> ref_count;
};

#endif
