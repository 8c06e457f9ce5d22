package com.zandry.tests;

import android.hardware.Camera;
import android.view.Surface;
import com.zandry.host.HostOutput;
import com.zandry.host.HostPlatform;
import com.zandry.mediatek.Native;
import java.util.Arrays;

/** The engine through its Java entry points, one case per JVM; exit status 1 on a failed check. */
public final class NativeBindingTest {
    private static final int TIMEOUT_MS = 30000;
    private static final int HAL_PIXEL_FORMAT_RGBA_8888 = 1;
    private static final int TRANSFORM_ROT_90 = 4;
    private static final int API_CPU = 2;
    private static final String CONFIG = "# host recording\nnative.bufferFrameCount=20\n";

    private static int failures = 0;

    private NativeBindingTest() {}

    private static void check(boolean ok, String what) {
        if (!ok) {
            failures++;
            System.err.println("FAILED: " + what);
        }
    }

    /** A stabilized RGBA picture: opaque everywhere, and not one flat colour. */
    private static void checkPicture(HostOutput output, int index, String name) {
        int[] shape = output.shape(index); // width, height, stride, format, transform
        byte[] pixels = output.pixels(index);
        boolean opaque = true;
        int minLuma = 255;
        int maxLuma = 0;
        for (int y = 0; y < shape[1]; y++) {
            for (int x = 0; x < shape[0]; x++) {
                int at = (y * shape[2] + x) * 4;
                opaque &= (pixels[at + 3] & 0xff) == 255;
                int luma = ((pixels[at] & 0xff) + (pixels[at + 1] & 0xff) + (pixels[at + 2] & 0xff)) / 3;
                minLuma = Math.min(minLuma, luma);
                maxLuma = Math.max(maxLuma, luma);
            }
        }
        check(opaque, name + " frame " + index + " is opaque");
        check(maxLuma - minLuma > 64,
                name + " frame " + index + " shows the camera picture (luma " + minLuma + ".." + maxLuma + ")");
    }

    /** The whole life of a recording into two outputs, with the settings of each applied. */
    static void recording() {
        final int frames = 30;
        check(HostPlatform.installGyro(), "gyroscope installed");
        HostOutput a = HostOutput.create(64, 48, 3); // size, format, count and transform set below
        HostOutput b = HostOutput.create(160, 120, 3); // keeps its own settings
        // Paced by what reaches `a`: no frame is ever dropped, so every frame must come out.
        HostPlatform.addCamera(0, 640, 480, 30, frames, 0x1234, a.window, 6);
        Camera camera = Camera.open(0);

        Native.onResume();
        int[] texture = {0};
        check(Native.getCameraTextureId(texture) == 0 && texture[0] != 0, "camera texture named");
        Native.glLock();
        Native.glUnlock();
        check(Native.surfaceAdd(a.surface, 320, 240, HAL_PIXEL_FORMAT_RGBA_8888, 4, TRANSFORM_ROT_90) == 0,
                "surfaceAdd a");
        check(Native.surfaceAdd(b.surface, -1, -1, -1, 0, -1) == 0, "surfaceAdd b");
        check(a.connectedApi() == API_CPU && b.connectedApi() == API_CPU, "both connected as CPU producers");
        check(a.bufferCount() == 4 && b.bufferCount() == 3, "buffer count set on a only");

        int[] config = new int[4];
        check(Native.getCameraConfig(camera, config) == 0, "getCameraConfig");
        check(Arrays.equals(config, new int[] {640, 480, 30, 0x1234}), "config " + Arrays.toString(config));
        Native.setCamera(camera, config[0], config[1], CONFIG);
        check(HostPlatform.waitCameraDrained(0, TIMEOUT_MS), "camera stream ended");
        Native.remCamera(); // drains the engine's queue into the outputs

        long[] cam = HostPlatform.cameraCounters(0);
        check(cam[1] == frames && cam[2] == frames && cam[3] == 0,
                "every frame delivered and handed back, none dropped: " + Arrays.toString(cam));
        check(HostPlatform.gyroCounters()[2] > 0, "gyro events were read by the engine");
        check(a.frameCount() == frames && b.frameCount() == frames,
                "one output per frame per surface: " + a.frameCount() + " " + b.frameCount());

        check(Native.surfaceRemove(a.surface) == 0 && Native.surfaceRemove(b.surface) == 0, "surfaceRemove");
        check(a.connectedApi() == 0 && b.connectedApi() == 0, "both disconnected by surfaceRemove");
        Native.onPause();
        Native.render();
        check(Native.isHyperlapse() == 0, "no hyperlapse");

        long[] ta = a.timestamps();
        long[] tb = b.timestamps();
        check(ta.length == frames && tb.length == frames, "timestamps of every frame");
        for (int i = 0; i < Math.min(ta.length, tb.length); i++) {
            check(ta[i] == tb[i], "same timestamp on both surfaces at " + i);
            // The camera stamps frame i at start + i / 30 s; each output keeps its frame's stamp.
            long expected = ta[0] + i * 1000000000L / 30;
            check(Math.abs(ta[i] - expected) < 1000, "frame " + i + " carries its camera timestamp");
            check(i == 0 || ta[i] > ta[i - 1], "timestamps increase at " + i);
        }
        int[] shapeA = a.shape(frames - 1);
        int[] shapeB = b.shape(frames - 1);
        check(shapeA[0] == 320 && shapeA[1] == 240 && shapeA[3] == HAL_PIXEL_FORMAT_RGBA_8888
                        && shapeA[4] == TRANSFORM_ROT_90,
                "a has the requested size, format and transform: " + Arrays.toString(shapeA));
        check(shapeB[0] == 160 && shapeB[1] == 120 && shapeB[4] == 0,
                "b kept its default size and transform: " + Arrays.toString(shapeB));
        for (int i : new int[] {0, frames / 2, frames - 1}) {
            checkPicture(a, i, "a");
            checkPicture(b, i, "b");
        }

        // The engine's references are gone: each window dies with its surface's.
        a.surface.release();
        b.surface.release();
        check(!a.alive() && !b.alive(), "windows destroyed with their surfaces");
        camera.release();
    }

    /** Reported frame rates: 30 and 60 as they are, any other as 30. */
    static void cameraConfig() {
        int[][] cases = {
            // camera id, width, height, fps, camera field, reported fps
            {1, 1280, 720, 24, 77, 30},
            {2, 1920, 1080, 60, -5, 60},
            {3, 640, 480, 30, 0, 30},
            {4, 640, 480, 15, 3, 30},
        };
        for (int[] c : cases) {
            HostPlatform.addCamera(c[0], c[1], c[2], c[3], 0, c[4], 0, 0);
            Camera camera = Camera.open(c[0]);
            int[] out = {-1, -1, -1, -1};
            check(Native.getCameraConfig(camera, out) == 0, "getCameraConfig returns 0");
            check(Arrays.equals(out, new int[] {c[1], c[2], c[5], c[4]}),
                    c[3] + " fps reported as " + Arrays.toString(out));
            camera.release();
        }
        HostPlatform.removeAllCameras();
    }

    /** A surface whose hashCode() collides with another's. */
    static final class CollidingSurface extends Surface {
        CollidingSurface(long window) {
            super(window);
        }

        @Override
        public int hashCode() {
            return 0x5eed;
        }

        @Override
        public boolean equals(Object other) {
            return this == other;
        }
    }

    /** Surfaces are told apart by hashCode() alone: colliding ones share one registry entry. */
    static void hashCollision() {
        final int frames = 10;
        HostOutput first = HostOutput.create(160, 120, 3, CollidingSurface::new);
        HostOutput second = HostOutput.create(160, 120, 3, CollidingSurface::new);
        check(first.surface.hashCode() == second.surface.hashCode(), "hash codes collide");
        HostPlatform.addCamera(5, 640, 480, 30, frames, 0, first.window, 6);
        Camera camera = Camera.open(5);

        Native.onResume();
        Native.surfaceAdd(first.surface, -1, -1, -1, 0, -1);
        Native.surfaceAdd(second.surface, -1, -1, -1, 0, -1);
        check(first.connectedApi() == API_CPU && second.connectedApi() == API_CPU, "both windows attached");
        Native.setCamera(camera, 640, 480, CONFIG);
        check(HostPlatform.waitCameraDrained(5, TIMEOUT_MS), "camera stream ended");
        Native.remCamera();
        check(first.frameCount() == frames, "the first surface registered receives every frame");
        check(second.frameCount() == 0, "the second one, under the same id, receives none");

        Native.surfaceRemove(second.surface); // removes the id's entry: the first window
        check(first.connectedApi() == 0, "removing the second surface detached the first window");
        check(second.connectedApi() == API_CPU, "the second window was never registered");
        Native.surfaceRemove(first.surface); // nothing left under the id
        check(second.connectedApi() == API_CPU, "removing an empty id changes nothing");
        Native.onPause();
        first.surface.release();
        check(!first.alive(), "first window released once by surfaceRemove");
        second.surface.release();
        camera.release();
    }

    public static void main(String[] args) throws ReflectiveOperationException {
        String name = args.length > 0 ? args[0] : "";
        if (!Arrays.asList("recording", "cameraConfig", "hashCollision").contains(name)) {
            System.err.println("usage: NativeBindingTest recording|cameraConfig|hashCollision");
            System.exit(2);
        }
        NativeBindingTest.class.getDeclaredMethod(name).invoke(null);
        if (failures > 0) {
            System.err.println(name + ": " + failures + " check(s) failed");
            System.exit(1);
        }
        System.out.println(name + ": passed");
    }
}
