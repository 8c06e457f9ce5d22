package com.zandry.host;

import android.view.Surface;
import java.util.function.LongFunction;

/** One host output window with an in-memory sink, and the Java surface that owns it. */
public final class HostOutput {
    public final long window; // native window address: the key of its frames
    public final Surface surface;

    private HostOutput(long window, Surface surface) {
        this.window = window;
        this.surface = surface;
    }

    public static HostOutput create(int defaultWidth, int defaultHeight, int bufferCount) {
        return create(defaultWidth, defaultHeight, bufferCount, Surface::new);
    }

    /** As above, with the surface made by {@code makeSurface} from the window's address. */
    public static HostOutput create(int defaultWidth, int defaultHeight, int bufferCount,
            LongFunction<Surface> makeSurface) {
        long window = HostPlatform.createWindow(defaultWidth, defaultHeight, bufferCount);
        return new HostOutput(window, makeSurface.apply(window));
    }

    public int frameCount() {
        return HostPlatform.frameCount(window);
    }

    public boolean waitForFrames(int count, int timeoutMs) {
        return HostPlatform.waitForFrames(window, count, timeoutMs);
    }

    public long[] timestamps() {
        return HostPlatform.frameTimestamps(window);
    }

    public int[] shape(int index) {
        return HostPlatform.frameShape(window, index);
    }

    public byte[] pixels(int index) {
        return HostPlatform.framePixels(window, index);
    }

    public boolean alive() {
        return HostPlatform.windowState(window)[0] != 0;
    }

    public int connectedApi() {
        return HostPlatform.windowState(window)[1];
    }

    public int bufferCount() {
        return HostPlatform.windowState(window)[2];
    }
}
