// koScopedResource: owns one value together with the function that releases
// it, so that a block handed out by the host is freed on every way out of a
// scope, exceptions included.
#ifndef KORVEL_PATHS_SCOPED_RESOURCE_H_
#define KORVEL_PATHS_SCOPED_RESOURCE_H_

#include <utility>

template <class T>
class koScopedResource {
 public:
  class ResourceBase {
   public:
    virtual ~ResourceBase() = default;
    virtual T& get() = 0;
  };

  // Calls the releaser with the value on destruction, also when it is null.
  template <class Releaser>
  class ResourceImpl : public ResourceBase {
   public:
    ResourceImpl(Releaser releaser, T value) : releaser_(releaser), value_(value) {}
    ~ResourceImpl() override { releaser_(value_); }
    T& get() override { return value_; }

   private:
    Releaser releaser_;
    T value_;
  };

  // Takes ownership of value; if the owner itself cannot be allocated, the
  // value is released before the exception leaves.
  koScopedResource(T value, void (*releaser)(void*)) {
    try {
      resource_ = new ResourceImpl<void (*)(void*)>(releaser, value);
    } catch (...) {
      releaser(value);
      throw;
    }
  }
  ~koScopedResource() { delete resource_; }
  koScopedResource(const koScopedResource&) = delete;
  koScopedResource& operator=(const koScopedResource&) = delete;

  T& get() { return resource_->get(); }

 private:
  ResourceBase* resource_ = nullptr;
};

#endif  // KORVEL_PATHS_SCOPED_RESOURCE_H_
