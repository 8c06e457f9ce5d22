package com.zandry.mediatek;

import android.hardware.Camera;
import android.view.Surface;

/**
 * The stabilization engine's entry points. Loading this class loads the engine (libqlmr.so),
 * whose one instance lives until the process ends.
 *
 * <p>Order of a recording: {@link #onResume}; {@link #surfaceAdd} for each output;
 * {@link #setCamera}; frames flow until {@link #remCamera}; {@link #surfaceRemove};
 * {@link #onPause}. Errors inside the engine are logged and end the process; they never come
 * back as Java exceptions. Every method may be called from any thread, but
 * {@link #glLock}/{@link #glUnlock} come in pairs on one thread.
 */
public final class Native {
    static {
        System.loadLibrary("qlmr");
    }

    private Native() {}

    /** Creates the engine's GL context, camera texture and warp program. */
    public static native void onResume();

    /** Releases what {@link #onResume} made. */
    public static native void onPause();

    /**
     * Starts stabilized recording from {@code camera} at a video size of {@code width} x
     * {@code height}, with the stabilization library's configuration text {@code config}
     * (key=value lines).
     */
    public static native void setCamera(Camera camera, int width, int height, String config);

    /** Stops recording, after every queued frame has been rendered. */
    public static native void remCamera();

    /**
     * Writes the camera's {video width, video height, frame rate, camera field} into
     * {@code out[0..3]}. Frame rates other than 30 and 60 are reported as 30. Returns 0.
     */
    public static native int getCameraConfig(Camera camera, int[] out);

    /** Writes the GL name of the engine's camera texture into {@code out[0]}. Returns 0. */
    public static native int getCameraTextureId(int[] out);

    /** Does nothing: the engine renders on its own thread. */
    public static native void render();

    /** Makes the engine's GL context current on the calling thread. */
    public static native void glLock();

    /** Releases it again; same thread as the matching {@link #glLock}. */
    public static native void glUnlock();

    /**
     * Adds {@code surface} as an output, identified by its {@code hashCode()}. A negative value
     * (a buffer count below 1) leaves that setting of the surface's window as it is; the
     * format is a HAL pixel format, the transform a set of window transform bits. Returns 0.
     */
    public static native int surfaceAdd(Surface surface, int width, int height, int format,
            int bufferCount, int transform);

    /** Removes the output registered under {@code surface.hashCode()}. Returns 0. */
    public static native int surfaceRemove(Surface surface);

    /** Always 0: the engine has no hyperlapse mode. */
    public static native int isHyperlapse();
}
