// Xdr_Record<T>: a wire record together with its XDR filter, owning what a decode allocates.
//
// Decoding may allocate (heap strings, directory buffers); the record frees those through the filter's
// XDR_FREE pass when it is reset or destroyed, so code that decodes a record frees nothing by hand. The
// value starts zeroed. Not copyable: the heap fields belong to this one object.
//
// Xdr_Record_Base lets code that only runs filters (the view-protocol frame) hold records of any type.
#pragma once

#include <rpc/xdr.h>

class Xdr_Record_Base {
 public:
  virtual ~Xdr_Record_Base() = default;
  // Runs the filter in the stream's direction (decode fills, encode reads). False when it fails; a
  // failed decode may leave fields half filled, which reset() or the destructor still frees.
  virtual bool code(XDR* x) = 0;
  // Frees what a decode allocated and zeroes the value.
  virtual void reset() = 0;
};

template <class T>
class Xdr_Record final : public Xdr_Record_Base {
 public:
  typedef bool_t (*Filter)(XDR*, T*);

  explicit Xdr_Record(Filter filter) : m_filter(filter) {}
  ~Xdr_Record() override { free_fields(); }
  Xdr_Record(const Xdr_Record&) = delete;
  Xdr_Record& operator=(const Xdr_Record&) = delete;

  T& get() { return m_value; }
  const T& get() const { return m_value; }
  T* operator->() { return &m_value; }
  const T* operator->() const { return &m_value; }

  bool code(XDR* x) override { return m_filter(x, &m_value) != 0; }
  void reset() override {
    free_fields();
    m_value = T{};
  }

 private:
  void free_fields() {
    XDR x{};
    x.x_op = XDR_FREE;
    m_filter(&x, &m_value);
  }

  Filter m_filter;
  T m_value{};
};
