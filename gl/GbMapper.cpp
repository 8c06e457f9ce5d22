#include "GbMapper.h"

#include "Log.h"

GbMapper::GbMapper(shared_ptr<GLContext>& contextIn, int usageIn)
    : context(contextIn), usage(usageIn) {}

GbMapper::~GbMapper() {
    clear();
}

GLGraphicBuffer* GbMapper::getGLGB(android::sp<android::GraphicBuffer> buffer) {
    android::GraphicBuffer* key = buffer.get();
    auto found = map.find(key);
    if (found != map.end())
        return found->second;
    QLOGE("GBM creating new GLGB for %p", static_cast<void*>(key));
    GLGraphicBuffer* binding = new GLGraphicBuffer(context, buffer, usage);
    try {
        map.emplace(key, binding);
    } catch (...) {
        delete binding;
        throw;
    }
    return binding;
}

void GbMapper::clear() {
    for (auto& entry : map)
        delete entry.second;
    map.clear();
}
