package android.hardware;

/**
 * Host stand-in for the platform's camera class, reduced to what the engine's binding and the
 * host tests use. {@link #open} connects to a host camera device (registered beforehand with
 * {@code com.zandry.host.HostPlatform.addCamera}) and keeps the address of the camera's native
 * context in {@code mNativeContext}, which native code reads by name; {@link #release}
 * disconnects the camera and sets the field to 0.
 */
public class Camera {
    static {
        System.loadLibrary("qlmr_host_jni");
    }

    // Address of the native camera context (mutex + connected camera); 0 once released.
    private long mNativeContext;

    private Camera() {}

    /**
     * Connects to host camera {@code cameraId}. Throws RuntimeException when there is no such
     * camera or another client holds it.
     */
    public static Camera open(int cameraId) {
        Camera camera = new Camera();
        camera.native_setup(cameraId);
        return camera;
    }

    /** Disconnects the camera. Idempotent. */
    public final synchronized void release() {
        native_release();
    }

    private native void native_setup(int cameraId);

    private native void native_release();
}
