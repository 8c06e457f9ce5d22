// Host form of the platform's binder object type.
//
// The host has no inter-process binder: every interface object lives in the process that uses
// it, and the host's own objects answer IInterface::onAsBinder() with null. This header keeps
// the platform's type so that interface code compiles unchanged; it replaces the platform's
// binder/IBinder.h, whose implementation (libbinder) does not exist on the host.
#pragma once

#include <utils/RefBase.h>

namespace android {

class IBinder : public virtual RefBase {
  public:
    IBinder() = default;

  protected:
    ~IBinder() override = default;
};

}  // namespace android
