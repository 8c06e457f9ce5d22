// Transfers between a GraphicBuffer's memory and the EGL images made from it. Internal.
#pragma once

#include <ui/GraphicBuffer.h>

#include "BufferStore.h"

namespace host {

// Uploads the buffer's content to each of its images. Called with store.mutex held and at
// least one image present; returns NO_ERROR or UNKNOWN_ERROR when the GL side failed.
android::status_t uploadToImages(android::GraphicBuffer& buffer, BufferStore& store);

// Reads the content back from an image that GL may have drawn into (one that was made
// renderbuffer storage); does nothing for buffers that GL only samples and for buffers whose
// memory is already current (BufferStore::memoryCurrent). Called with store.mutex held.
android::status_t readBackFromImages(android::GraphicBuffer& buffer, BufferStore& store);

// Reads the content back from an image that GL may have drawn into (one that was made
// renderbuffer storage) for a buffer about to be handed to a window's consumer, and marks the
// memory current until noteHandedToProducer. Takes store.mutex itself; does nothing while the
// CPU holds a lock on the buffer. Called on the producer's thread.
android::status_t readBackForConsumer(android::GraphicBuffer& buffer);

// A window hands `buffer` to its producer, which may draw into it again: later read-backs are
// needed. Takes store.mutex itself; called on the producer's thread.
void noteHandedToProducer(android::GraphicBuffer& buffer);

}  // namespace host
