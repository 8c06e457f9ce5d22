package com.zandry.host;

/**
 * Host-only control of the platform stand-ins for Java tests: host camera devices, the host
 * gyroscope, output windows with in-memory sinks, and capture of the Android log. Every method
 * is thread-safe. Errors in arguments throw IllegalArgumentException.
 */
public final class HostPlatform {
    static {
        System.loadLibrary("qlmr_host_jni");
    }

    private HostPlatform() {}

    /**
     * Registers host camera {@code cameraId} (replacing an earlier one) recording synthetic
     * frames of {@code width} x {@code height} at {@code framesPerSecond}; the stream ends after
     * {@code frameCount} frames (0: endless). {@code cameraField} is the 32-bit word the
     * platform camera object carries in its sixth word.
     *
     * <p>{@code paceWindow} 0: frames come in real time and are dropped when the camera's
     * buffers are all out. Otherwise the address of a window made by {@link #createWindow}: frame
     * i is made only once that window has received more than i - {@code maxFramesAhead} frames,
     * so a consumer that renders every frame to it never finds its queue full and nothing is
     * dropped (frames then come as fast as they are consumed). Frame indices count from the
     * camera's first frame, so a paced camera is meant for one recording.
     */
    public static native void addCamera(int cameraId, int width, int height, int framesPerSecond,
            int frameCount, int cameraField, long paceWindow, int maxFramesAhead);

    public static native void removeAllCameras();

    /** {captured, delivered, released, dropped, discarded} frames of camera {@code cameraId}. */
    public static native long[] cameraCounters(int cameraId);

    /** Waits until the camera's stream has ended and every frame was delivered or discarded. */
    public static native boolean waitCameraDrained(int cameraId, int timeoutMs);

    /** Installs a live synthetic gyroscope (replacing any). False while one is in use. */
    public static native boolean installGyro();

    /** {samples read, events queued, events delivered} of the installed gyroscope. */
    public static native long[] gyroCounters();

    /**
     * Captures every Android log line from now on (they are still written to stderr). Starting
     * again clears what was captured.
     */
    public static native void captureLog();

    /** Texts of the captured lines with tag {@code tag}, in order. */
    public static native String[] logLines(String tag);

    /**
     * A host window of {@code defaultWidth} x {@code defaultHeight} RGBA pixels with
     * {@code bufferCount} buffers, whose frames are kept in memory. Returns its address with one
     * reference for the caller (give it to a Surface). The frames stay readable after the
     * window is gone.
     */
    public static native long createWindow(int defaultWidth, int defaultHeight, int bufferCount);

    public static native int frameCount(long window);

    public static native boolean waitForFrames(long window, int count, int timeoutMs);

    /** Timestamps (ns) of the window's frames in arrival order. */
    public static native long[] frameTimestamps(long window);

    /** {width, height, stride (pixels), HAL format, transform} of frame {@code index}. */
    public static native int[] frameShape(long window, int index);

    /** The pixel bytes of frame {@code index}: stride x height pixels, 4 bytes each (RGBA). */
    public static native byte[] framePixels(long window, int index);

    /**
     * {alive (1/0), connected producer API (0: none), buffer count, buffers queued}; all 0 once
     * the window's last reference is gone.
     */
    public static native int[] windowState(long window);
}
