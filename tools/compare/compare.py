#!/usr/bin/python3
"""Side-by-side speed and quality of qlmr_replay and ffmpeg's stabilizers.

For every clip (the synthetic recording at 1280x720 and 1920x1080, the real phone recording)
this runs, interleaved round after round, our whole replay command (video, metrics, report),
ffmpeg's two-pass vid.stab (vidstabdetect + vidstabtransform, timed together) and ffmpeg's
deshake, and reports the minimum and median wall time and frames per second of each and the
speed of ours over each. Every output video, and the input, then gets the same image-only
measurement (measure.py): frame-to-frame motion by feature tracking with RANSAC, the stability
and cropping scores of Liu et al. 2013 and a high-pass jitter in pixels.

The table goes to docs/performance.md (--doc) beside a description of the machine; every
figure also goes to <work>/compare.json.

Run by scripts/compare.sh. Needs Debian's ffmpeg (with libvidstab) and python3-opencv; run it
with /usr/bin/python3 (the system interpreter that python3-opencv installs into).
"""

import argparse
import datetime
import json
import os
import platform
import shutil
import statistics
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import measure  # noqa: E402

# Same encoder settings as qlmr_replay's own MP4 (tools/replay/media/Ffmpeg.cpp h264Options with its
# default preset), so that every command ends with the same H.264 encode.
X264 = ["-c:v", "libx264", "-preset", "ultrafast", "-crf", "18", "-pix_fmt", "yuv420p"]


class CompareError(Exception):
    pass


def run(argv, log):
    """Runs one command, its output appended to `log`; a failure ends the comparison."""
    with open(log, "ab") as f:
        f.write(("$ " + " ".join(argv) + "\n").encode())
        f.flush()
        r = subprocess.run(argv, stdout=f, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL)
    if r.returncode != 0:
        raise CompareError(f"{argv[0]} exited with {r.returncode}; see {log}")


def timed(commands, log):
    """Wall time and CPU time (user + system of the commands and their children), in seconds,
    of `commands` run one after the other. CPU time hardly moves with the machine's load:
    it shows what a command costs even where the wall times are noisy."""
    before = os.times()
    start = time.perf_counter()
    for argv in commands:
        run(argv, log)
    wall = time.perf_counter() - start
    after = os.times()
    cpu = (after.children_user - before.children_user
           + after.children_system - before.children_system)
    return wall, cpu


def read_frames_csv(rec):
    """Image files (absolute) and the frame rate of a recording folder."""
    path = os.path.join(rec, "frames.csv")
    files, stamps = [], []
    with open(path) as f:
        lines = f.read().splitlines()
    for n, line in enumerate(lines[1:], start=2):
        parts = line.split(",")
        if len(parts) < 2:
            raise CompareError(f"{path}:{n}: expected timestamp_ns,file[,exposure_us]")
        stamps.append(int(parts[0]))
        files.append(parts[1] if os.path.isabs(parts[1]) else os.path.join(rec, parts[1]))
    if len(files) < 2:
        raise CompareError(f"{path}: fewer than two frames")
    fps = (len(stamps) - 1) * 1e9 / (stamps[-1] - stamps[0])
    return files, fps


def peer_input(rec, work, clip):
    """A folder of numbered links to the recording's images, for ffmpeg's image2 reader."""
    files, fps = read_frames_csv(rec)
    d = os.path.join(work, f"peer-in-{clip}")
    shutil.rmtree(d, ignore_errors=True)
    os.makedirs(d)
    ext = os.path.splitext(files[0])[1]
    for i, src in enumerate(files):
        os.symlink(os.path.abspath(src), os.path.join(d, f"{i:06d}{ext}"))
    return os.path.join(d, "%06d" + ext), len(files), fps


def machine():
    """One paragraph describing the machine: CPU, cores, memory, kernel, Mesa and ffmpeg."""
    cpu = "unknown CPU"
    try:
        with open("/proc/cpuinfo") as f:
            for line in f:
                if line.startswith("model name"):
                    cpu = line.split(":", 1)[1].strip()
                    break
    except OSError:
        pass
    mem = ""
    try:
        with open("/proc/meminfo") as f:
            kb = int(f.readline().split()[1])
            mem = f"{kb / 1048576:.0f} GiB memory"
    except (OSError, ValueError, IndexError):
        pass

    def pkg(name):
        r = subprocess.run(["dpkg-query", "-W", "-f=${Version}", name], capture_output=True,
                           text=True)
        return r.stdout.strip() or "?"

    load = os.getloadavg()
    return (f"{cpu}, {os.cpu_count()} cores, {mem}; Linux {platform.release()}; "
            f"Mesa llvmpipe {pkg('libgl1-mesa-dri')}; ffmpeg {pkg('ffmpeg')}, "
            f"libvidstab {pkg('libvidstab1.1')}; load average at the start "
            f"{load[0]:.1f} / {load[1]:.1f} / {load[2]:.1f}")


def image_kind(rec):
    """'JPEG' or 'PNG': the kind of the recording's first image."""
    files, _ = read_frames_csv(rec)
    ext = os.path.splitext(files[0])[1].lower()
    return {".jpg": "JPEG", ".jpeg": "JPEG", ".png": "PNG"}.get(ext, ext.lstrip(".").upper())


def png_copy(rec, out):
    """The recording `rec` with every frame re-written as PNG (same pictures, lossless)."""
    import cv2
    os.makedirs(os.path.join(out, "frames"), exist_ok=True)
    for f in ("gyro.csv", "config.txt"):
        shutil.copy(os.path.join(rec, f), os.path.join(out, f))
    with open(os.path.join(rec, "frames.csv")) as f:
        lines = f.read().splitlines()
    rows = [lines[0]]
    for line in lines[1:]:
        parts = line.split(",")
        name = os.path.splitext(parts[1])[0] + ".png"
        image = cv2.imread(os.path.join(rec, parts[1]), cv2.IMREAD_COLOR)
        if image is None or not cv2.imwrite(os.path.join(out, name), image):
            raise CompareError(f"cannot convert {parts[1]} of {rec} to PNG")
        rows.append(",".join([parts[0], name] + parts[2:]))
    with open(os.path.join(out, "frames.csv"), "w") as f:
        f.write("\n".join(rows) + "\n")


def prepare(args, work, log):
    """Recording folders of every clip: {name: (folder, label)}. synth-WxH is saved as JPEG
    frames (quality 95); synth-WxH-png is the same recording with PNG frames."""
    bindir = os.path.join(args.build, "bin")
    clips = {}
    for name in args.clips:
        rec = os.path.join(work, f"rec-{name}")
        if name.startswith("synth-") and name.endswith("-png"):
            jpeg = name[:-len("-png")]
            if not os.path.exists(os.path.join(rec, "frames.csv")):
                shutil.rmtree(rec, ignore_errors=True)
                jpeg_rec = prepare(argparse.Namespace(**{**vars(args), "clips": [jpeg]}), work,
                                   log)[jpeg][0]
                png_copy(jpeg_rec, rec)
            clips[name] = (rec, f"synthetic walk {jpeg[len('synth-'):]}, {args.seconds:g} s, "
                                f"{image_kind(rec)} frames")
        elif name.startswith("synth-"):
            size = name[len("synth-"):]
            if not os.path.exists(os.path.join(rec, "frames.csv")):
                shutil.rmtree(rec, ignore_errors=True)
                run([os.path.join(bindir, "qlmr_replay"), "--dry-run", "--no-mp4", "-q",
                     "--size", size, "--seconds", str(args.seconds), "--save-recording", rec,
                     "--out", os.path.join(work, f"prep-{name}")], log)
            clips[name] = (rec, f"synthetic walk {size}, {args.seconds:g} s, "
                                f"{image_kind(rec)} frames")
        elif name == "phone":
            if not os.path.exists(os.path.join(rec, "frames.csv")):
                shutil.rmtree(rec, ignore_errors=True)
                run([os.path.join(bindir, "qlmr_phone_convert"), "--data", args.phone, "--out",
                     rec], log)
            clips[name] = (rec, f"real phone recording 800x600, {image_kind(rec)} frames")
        else:
            raise CompareError(f"unknown clip '{name}' (synth-WxH, synth-WxH-png or phone)")
    return clips


def compare_clip(args, work, log, name, rec):
    bindir = os.path.join(args.build, "bin")
    pattern, frames, fps = peer_input(rec, work, name)
    outs = {k: os.path.join(work, f"out-{name}-{k}") for k in ("ours", "vidstab", "deshake")}
    for d in outs.values():
        os.makedirs(d, exist_ok=True)
    ff = ["ffmpeg", "-nostdin", "-y", "-v", "error", "-framerate", f"{fps:.6f}", "-i", pattern]
    trf = os.path.join(outs["vidstab"], "transforms.trf")
    commands = {
        "ours": [[os.path.join(bindir, "qlmr_replay"), "--input", rec, "--out", outs["ours"],
                  "-q"]],
        # vidstabdetect refuses RGB input: the frames are converted to 4:2:0 first.
        "vidstab": [ff + ["-vf", f"format=yuv420p,vidstabdetect=result={trf}", "-f", "null", "-"],
                    ff + ["-vf", f"format=yuv420p,vidstabtransform=input={trf}"] + X264 +
                    [os.path.join(outs["vidstab"], "stabilized.mp4")]],
        "deshake": [ff + ["-vf", "format=yuv420p,deshake"] + X264 +
                    [os.path.join(outs["deshake"], "stabilized.mp4")]],
    }
    times = {k: [] for k in commands}
    cpus = {k: [] for k in commands}
    for r in range(args.runs):
        for k, cmds in commands.items():  # ours, vid.stab, ours, deshake, ... per round
            t, cpu = timed(cmds, log)
            times[k].append(t)
            cpus[k].append(cpu)
            print(f"  {name} round {r + 1}: {k} {t:.2f} s ({frames / t:.1f} fps), "
                  f"CPU {cpu:.2f} s", flush=True)

    speed = {}
    for k, ts in times.items():
        speed[k] = {"runs_s": ts, "min_s": min(ts), "median_s": statistics.median(ts),
                    "fps_best": frames / min(ts), "fps_median": frames / statistics.median(ts),
                    "cpu_runs_s": cpus[k], "cpu_median_s": statistics.median(cpus[k])}
    for k in speed:
        speed[k]["ours_speedup_median"] = speed["ours"]["fps_median"] / speed[k]["fps_median"]
        speed[k]["ours_speedup_best"] = speed["ours"]["fps_best"] / speed[k]["fps_best"]

    print(f"  {name}: measuring the outputs", flush=True)
    files, _ = read_frames_csv(rec)
    quality = {"input": measure.measure_video(measure.read_images(files), None, fps)}
    for k, d in outs.items():
        video = os.path.join(d, "stabilized.mp4")
        quality[k] = measure.measure_video(measure.read_video(video),
                                           measure.read_images(files), fps)
    metrics = {}
    try:
        with open(os.path.join(outs["ours"], "metrics.json")) as f:
            metrics = json.load(f)
    except (OSError, ValueError):
        pass
    stages = metrics.get("timing_ms", {}).get("engine_stages", {})

    def p50(label):
        return stages.get(label, {}).get("p50")

    return {"frames": frames, "fps_recording": fps, "speed": speed, "quality": quality,
            "engine": {"session_fps": metrics.get("throughput", {}).get("fps"),
                       "unlock_p50_ms": p50("dataCallbackTimestamp()/unlock"),
                       "render_p50_ms": p50("Render()/Render"),
                       "trigger_render_p50_ms": p50("triggerVStab()/Render")}}


def fmt(v, digits=2):
    return "–" if v is None else f"{v:.{digits}f}"


def table(results):
    rows = ["| clip | command | min s | median s | fps (best) | fps (median) | ours × | "
            "CPU s (median) | jitter px | stability | cropping | tracked |",
            "|---|---|---|---|---|---|---|---|---|---|---|---|"]
    names = {"input": "input (no stabilization)", "ours": "**qlmr_replay**",
             "vidstab": "vid.stab 2-pass", "deshake": "deshake"}
    for clip, r in results.items():
        for k in ("input", "ours", "vidstab", "deshake"):
            q = r["quality"][k]
            s = r["speed"].get(k)
            if s:
                speed = (f"{s['min_s']:.2f} | {s['median_s']:.2f} | {s['fps_best']:.1f} | "
                         f"{s['fps_median']:.1f} | {s['ours_speedup_median']:.2f} | "
                         f"{s['cpu_median_s']:.1f}")
            else:
                speed = "| | | | |"
            rows.append(f"| {clip} | {names[k]} | {speed} | {fmt(q['jitter_px'])} | "
                        f"{fmt(q['stability'])} | {fmt(q['cropping'])} | "
                        f"{q['tracked_fraction'] * 100:.0f} % |")
    return "\n".join(rows)


def engine_table(results):
    """Our engine's own figures in the last run of each clip (its metrics.json)."""
    rows = ["| clip | engine session fps | camera buffer unlock p50 ms | Render p50 ms |",
            "|---|---|---|---|"]
    for clip, r in results.items():
        e = r["engine"]
        rows.append(f"| {clip} | {fmt(e['session_fps'], 1)} | {fmt(e['unlock_p50_ms'])} | "
                    f"{fmt(e['render_p50_ms'])} |")
    return "\n".join(rows)


def verdicts(results):
    """The acceptance lines this table can show: speed over vid.stab at 1080p and jitter below
    both peers on every clip, each met or missed, with the figures."""
    lines = []
    for clip, r in results.items():
        s = r["speed"]["vidstab"]["ours_speedup_median"]
        if clip.startswith("synth-1920x1080"):
            mark = "met" if s >= 3 else "MISSED"
            lines.append(f"- {clip}: the whole replay command is {s:.2f}× vid.stab's two passes "
                         f"in median fps (target ≥ 3×): **{mark}**.")
        q = r["quality"]
        ours = q["ours"]["jitter_px"]
        peers = [q["vidstab"]["jitter_px"], q["deshake"]["jitter_px"]]
        ok = ours is not None and all(p is not None and ours < p for p in peers)
        lines.append(f"- {clip}: image-measured jitter ours {fmt(ours)} px, vid.stab "
                     f"{fmt(peers[0])} px, deshake {fmt(peers[1])} px (target: below both): "
                     f"**{'met' if ok else 'MISSED'}**.")
    return "\n".join(lines)


def write_doc(path, results, machine_text, args):
    begin, end = "<!-- compare:begin -->", "<!-- compare:end -->"
    now = datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d %H:%M UTC")
    block = (f"{begin}\n_Generated by `scripts/compare.sh` on {now}, {args.runs} interleaved "
             f"rounds per clip._\n\nMachine: {machine_text}.\n\nClips: "
             + "; ".join(f"{c}: {r['label']} ({r['frames']} frames)" for c, r in results.items())
             + f".\n\n{table(results)}\n\n"
             f"Our engine's own stage timings (last round, from its metrics.json; the unlock "
             f"includes the upload into the GL image):\n\n{engine_table(results)}\n\n"
             f"{verdicts(results)}\n{end}")
    text = ""
    if os.path.exists(path):
        with open(path) as f:
            text = f.read()
    if begin in text and end in text:
        text = text[:text.index(begin)] + block + text[text.index(end) + len(end):]
    else:
        text = (text or "# Performance\n\n") + "\n" + block + "\n"
    with open(path, "w") as f:
        f.write(text)


def main():
    root = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("--build", default=os.path.join(root, "build", "default"),
                   help="build folder holding bin/qlmr_replay (default: build/default)")
    p.add_argument("--work", default=os.path.join(root, "compare-out"),
                   help="recordings, outputs and compare.json (default: compare-out)")
    p.add_argument("--clips", default="synth-1280x720,synth-1920x1080,synth-1920x1080-png,phone",
                   help="comma-separated: synth-WxH (JPEG frames), synth-WxH-png, phone")
    p.add_argument("--seconds", type=float, default=5, help="length of the synthetic clips")
    p.add_argument("--runs", type=int, default=2, help="interleaved rounds per clip")
    p.add_argument("--phone", default=os.path.join(os.path.dirname(root), "shared", "data",
                                                   "phone-handheld"),
                   help="the phone recording's folder")
    p.add_argument("--doc", default=os.path.join(root, "docs", "performance.md"),
                   help="markdown file whose generated block is replaced ('' : none)")
    args = p.parse_args()
    args.clips = [c for c in args.clips.split(",") if c]
    if args.runs < 1:
        p.error("--runs must be at least 1")
    if not os.path.exists(os.path.join(args.build, "bin", "qlmr_replay")):
        p.error(f"{args.build}/bin/qlmr_replay not found: build first (scripts/compare.sh does)")
    if shutil.which("ffmpeg") is None:
        p.error("ffmpeg not found (Debian package ffmpeg)")

    work = os.path.abspath(args.work)
    os.makedirs(work, exist_ok=True)
    log = os.path.join(work, "commands.log")
    open(log, "w").close()
    machine_text = machine()
    print(f"machine: {machine_text}", flush=True)
    try:
        clips = prepare(args, work, log)
        results = {}
        for name, (rec, label) in clips.items():
            print(f"{name}: {label}", flush=True)
            results[name] = compare_clip(args, work, log, name, rec)
            results[name]["label"] = label
    except CompareError as e:
        print(f"compare: error: {e}", file=sys.stderr)
        return 1
    with open(os.path.join(work, "compare.json"), "w") as f:
        json.dump({"machine": machine_text, "runs": args.runs, "clips": results}, f, indent=1)
    print(table(results))
    print(engine_table(results))
    print(verdicts(results))
    if args.doc:
        write_doc(args.doc, results, machine_text, args)
        print(f"table written to {args.doc}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
