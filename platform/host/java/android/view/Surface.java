package android.view;

/**
 * Host stand-in for the platform's surface class: a Java handle on one native window. The
 * surface owns one reference to the window, whose address it keeps in {@code mNativeObject}
 * (read by name by the platform's {@code ANativeWindow_fromSurface}); {@link #release} drops
 * that reference and sets the field to 0. The field changes only under the surface's monitor.
 *
 * <p>Subclasses may override {@code hashCode()}: the engine identifies output surfaces by it.
 */
public class Surface {
    static {
        System.loadLibrary("qlmr_host_jni");
    }

    // Address of the native window; 0 once released.
    private long mNativeObject;

    /** Host only: a surface that takes over one reference to the window at {@code nativeObject}. */
    public Surface(long nativeObject) {
        mNativeObject = nativeObject;
    }

    public synchronized boolean isValid() {
        return mNativeObject != 0;
    }

    /** Drops the surface's reference to its window. Idempotent. */
    public synchronized void release() {
        if (mNativeObject != 0) {
            nativeRelease(mNativeObject);
            mNativeObject = 0;
        }
    }

    private static native void nativeRelease(long nativeObject);
}
