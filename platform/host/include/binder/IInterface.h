// Host form of the platform's binder interface base.
//
// IInterface is the common base of every platform service interface (camera listeners, shared
// memory). It derives virtually from RefBase, as on the platform, so that a class may implement
// several interfaces and still have one reference count. The host has no binder transport;
// asBinder() returns whatever onAsBinder() gives, which is null for every host object.
//
// DECLARE_META_INTERFACE / IMPLEMENT_META_INTERFACE give an interface its descriptor string,
// constructor and destructor, as the platform's macros do (without the remote proxy parts).
#pragma once

#include <binder/IBinder.h>
#include <utils/RefBase.h>
#include <utils/String16.h>
#include <utils/StrongPointer.h>

namespace android {

class IInterface : public virtual RefBase {
  public:
    IInterface();
    static sp<IBinder> asBinder(const IInterface* iface);
    static sp<IBinder> asBinder(const sp<IInterface>& iface);

  protected:
    ~IInterface() override;
    virtual IBinder* onAsBinder() = 0;
};

}  // namespace android

#define DECLARE_META_INTERFACE(INTERFACE)                              \
  public:                                                              \
    static const ::android::String16 descriptor;                       \
    virtual const ::android::String16& getInterfaceDescriptor() const; \
    I##INTERFACE();                                                    \
    ~I##INTERFACE() override;

#define IMPLEMENT_META_INTERFACE(INTERFACE, NAME)                             \
    const ::android::String16 I##INTERFACE::descriptor(NAME);                 \
    const ::android::String16& I##INTERFACE::getInterfaceDescriptor() const { \
        return I##INTERFACE::descriptor;                                      \
    }                                                                         \
    I##INTERFACE::I##INTERFACE() {}                                           \
    I##INTERFACE::~I##INTERFACE() {}
