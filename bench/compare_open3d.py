#!/usr/bin/python3
"""Per-frame integration time of Velmora against Open3D on the same recorded sequence.

Runs `velmora fuse --stats` (single-threaded, split mode, depth only) and integrates the same depth frames
with Open3D's VoxelBlockGrid on the CPU and with the legacy ScalableTSDFVolume, at the same cell
size and truncation, with one and with two threads. Prints the median per-frame time of each and
its ratio to Velmora's.

With --mesh, times whole-scene meshing instead: Open3D's `extract_triangle_mesh` on a tensor
VoxelBlockGrid that fused all frames of the sequence (one thread), against the benchmark
`bench_surface`, which meshes and merges every block of the same frames fused by Velmora, and
(at 0.02 m) makes a host's first `extractSurface` request of them. The
sequence must then be the built-in scene rendered with the benchmark's frame count
(`velmora render-scene DIR --frames 60`).

With --raycast, times rendering one 640x480 depth view: Open3D's VoxelBlockGrid.ray_cast of the
fused sequence from the poses of its last frames on one thread, against the cost of a colour image
in `velmora fuse` at the same frames (a colour frame renders the volume from the frame's pose).

With --write-corner DIR, writes the view that `BM_RaycastFrame` (bench/queries.cpp) renders as a
sequence of CORNER_FRAMES identical frames in DIR, for --raycast on that view.

With --scene-table, prints the side-by-side table on the built-in scene (see scene_table).

Usage: bench/compare_open3d.py SEQUENCE_DIR [--velmora PATH] [--cell-size M] [--truncation M]
       bench/compare_open3d.py SEQUENCE_DIR --mesh [--bench-surface PATH] [--cell-size M] ...
       bench/compare_open3d.py SEQUENCE_DIR --raycast [--velmora PATH] [--cell-size M] ...
       bench/compare_open3d.py --write-corner DIR
       bench/compare_open3d.py --scene-table [--frames N] [--size WxH] [--velmora PATH] ...
Needs Debian's python3-open3d and python3-numpy (run with /usr/bin/python3).
"""
import argparse
import glob
import json
import os
import statistics
import subprocess
import sys
import tempfile
import time


def read_matrix(path):
    with open(path) as f:
        values = [float(v) for v in f.read().split()]
    return values


def load_sequence(directory):
    depth_paths = sorted(glob.glob(os.path.join(directory, "depth", "*.png")))
    frames = []
    for depth_path in depth_paths:
        stem = os.path.splitext(os.path.basename(depth_path))[0]
        pose_path = os.path.join(directory, "pose", stem + ".txt")
        if not os.path.exists(pose_path):
            continue
        pose = read_matrix(pose_path)
        if len(pose) != 16 or any(v != v or v in (float("inf"), float("-inf")) for v in pose):
            continue  # tracking lost: velmora skips these too
        frames.append((depth_path, pose))
    k = read_matrix(os.path.join(directory, "intrinsic", "intrinsic_depth.txt"))
    columns = 4 if len(k) == 16 else 3
    intrinsics = (k[0], k[columns + 1], k[2], k[columns + 2])
    return frames, intrinsics


def run_velmora(binary, directory, cell, truncation):
    with tempfile.TemporaryDirectory() as tmp:
        stats_path = os.path.join(tmp, "stats.json")
        # Depth only, as Open3D integrates it: no label or colour images.
        subprocess.run([binary, "fuse", directory, "--cell-size", str(cell), "--truncation",
                        str(truncation), "--label-every", "0", "--color-every", "0", "--stats",
                        stats_path], check=True,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        with open(stats_path) as f:
            stats = json.load(f)
    return [frame["submitMs"] for frame in stats["frames"]]


def run_open3d(frames, intrinsics, cell, truncation, threads, legacy, keep=False):
    import numpy as np
    import open3d as o3d

    o3d.utility.set_verbosity_level(o3d.utility.VerbosityLevel.Error)
    os.environ["OMP_NUM_THREADS"] = str(threads)
    width_height = o3d.io.read_image(frames[0][0])
    width, height = np.asarray(width_height).shape[1], np.asarray(width_height).shape[0]
    fx, fy, cx, cy = intrinsics
    times = []
    if legacy:
        camera = o3d.camera.PinholeCameraIntrinsic(width, height, fx, fy, cx, cy)
        volume = o3d.pipelines.integration.ScalableTSDFVolume(
            voxel_length=cell, sdf_trunc=truncation,
            color_type=o3d.pipelines.integration.TSDFVolumeColorType.NoColor)
        for depth_path, pose in frames:
            depth = o3d.io.read_image(depth_path)
            colour = o3d.geometry.Image(np.zeros((height, width, 3), dtype=np.uint8))
            rgbd = o3d.geometry.RGBDImage.create_from_color_and_depth(
                colour, depth, depth_scale=1000.0, depth_trunc=5.0, convert_rgb_to_intensity=False)
            extrinsic = np.linalg.inv(np.array(pose).reshape(4, 4))
            start = time.perf_counter()
            volume.integrate(rgbd, camera, extrinsic)
            times.append((time.perf_counter() - start) * 1000.0)
        run_open3d.kept = volume if keep else None
        return times
    device = o3d.core.Device("CPU:0")
    grid = o3d.t.geometry.VoxelBlockGrid(attr_names=("tsdf", "weight"),
                                         attr_dtypes=(o3d.core.float32, o3d.core.float32),
                                         attr_channels=((1), (1)), voxel_size=cell,
                                         block_resolution=8, block_count=50000, device=device)
    intrinsic = o3d.core.Tensor([[fx, 0, cx], [0, fy, cy], [0, 0, 1]], o3d.core.Dtype.Float64)
    for depth_path, pose in frames:
        depth = o3d.t.io.read_image(depth_path).to(device)
        extrinsic = o3d.core.Tensor(np.linalg.inv(np.array(pose).reshape(4, 4)),
                                    o3d.core.Dtype.Float64)
        start = time.perf_counter()
        coords = grid.compute_unique_block_coordinates(depth, intrinsic, extrinsic, 1000.0, 5.0,
                                                       truncation / cell)
        grid.integrate(coords, depth, intrinsic, extrinsic, 1000.0, 5.0, truncation / cell)
        times.append((time.perf_counter() - start) * 1000.0)
    run_open3d.kept = grid if keep else None
    return times


# Views rendered by Open3D's ray_cast after fusing the sequence: the last ones of the sequence.
RAYCAST_VIEWS = 5


def run_open3d_raycast(frames, intrinsics, cell, truncation):
    """Median milliseconds of VoxelBlockGrid.ray_cast (depth only, all blocks) from the poses of
    the last frames, after fusing every frame (the thread count comes from OMP_NUM_THREADS)."""
    import numpy as np
    import open3d as o3d

    run_open3d(frames, intrinsics, cell, truncation, 1, False, keep=True)
    grid = run_open3d.kept
    first = np.asarray(o3d.io.read_image(frames[0][0]))
    height, width = first.shape[0], first.shape[1]
    fx, fy, cx, cy = intrinsics
    intrinsic = o3d.core.Tensor([[fx, 0, cx], [0, fy, cy], [0, 0, 1]], o3d.core.Dtype.Float64)
    blocks = grid.hashmap().key_tensor()
    times = []
    for _, pose in frames[-RAYCAST_VIEWS:]:
        extrinsic = o3d.core.Tensor(np.linalg.inv(np.array(pose).reshape(4, 4)),
                                    o3d.core.Dtype.Float64)
        start = time.perf_counter()
        # The near and far plane of the library's rendering, any fused sample counts.
        grid.ray_cast(blocks, intrinsic, extrinsic, width, height, render_attributes=["depth"],
                      depth_scale=1000.0, depth_min=0.05, depth_max=5.0, weight_threshold=1.0,
                      trunc_voxel_multiplier=truncation / cell)
        times.append((time.perf_counter() - start) * 1000.0)
    return times


# The room corner of bench/queries.cpp: 640x480 pixels, fx = fy = 525, principal point (319.5,
# 239.5), the camera at the origin looking along +z, the floor 1 m below (+y), the back wall 3 m
# ahead and the side wall 1.5 m to the left. Written as the same frame CORNER_FRAMES times, so
# that --raycast renders it from RAYCAST_VIEWS poses.
CORNER_FRAMES = RAYCAST_VIEWS


def write_corner(directory):
    import numpy as np
    import open3d as o3d

    width, height, focal, cx, cy = 640, 480, 525.0, 319.5, 239.5
    u, v = np.meshgrid(np.arange(width, dtype=np.float32), np.arange(height, dtype=np.float32))
    xn, yn = (u - np.float32(cx)) / np.float32(focal), (v - np.float32(cy)) / np.float32(focal)
    depth = np.full((height, width), 3.0, dtype=np.float32)
    below = yn > 0
    depth[below] = np.minimum(depth[below], np.float32(1.0) / yn[below])
    left = xn < 0
    depth[left] = np.minimum(depth[left], np.float32(-1.5) / xn[left])
    # Millimetres rounded half away from zero, as the benchmark's std::lround.
    millimetres = np.floor(depth.astype(np.float64) * 1000.0 + 0.5).astype(np.uint16)
    grey = np.full((height, width, 3), 128, dtype=np.uint8)
    for sub in ("depth", "color", "pose", "intrinsic"):
        os.makedirs(os.path.join(directory, sub), exist_ok=True)
    with open(os.path.join(directory, "intrinsic", "intrinsic_depth.txt"), "w") as f:
        f.write(f"{focal} 0 {cx} 0\n0 {focal} {cy} 0\n0 0 1 0\n0 0 0 1\n")
    for i in range(CORNER_FRAMES):
        o3d.io.write_image(os.path.join(directory, "depth", f"{i:06d}.png"),
                           o3d.geometry.Image(millimetres))
        o3d.io.write_image(os.path.join(directory, "color", f"{i:06d}.png"),
                           o3d.geometry.Image(grey))
        with open(os.path.join(directory, "pose", f"{i:06d}.txt"), "w") as f:
            f.write("1 0 0 0\n0 1 0 0\n0 0 1 0\n0 0 0 1\n")


def compare_raycast(args, frames, intrinsics):
    """Rendering one depth view: Velmora's cost is, for each of the last RAYCAST_VIEWS frames, the
    time of that frame in `velmora fuse` with a colour image every frame (each renders the volume
    from its pose) minus its time with depth alone, the median of those; Open3D's is the median
    of ray_cast of the fused grid from the same poses on one thread. Velmora renders each of those
    views after fusing the frames up to it, Open3D after fusing them all."""
    with tempfile.TemporaryDirectory() as tmp:
        times = []
        for colour_every in (0, 1):
            stats_path = os.path.join(tmp, "stats.json")
            subprocess.run([args.velmora, "fuse", args.sequence, "--cell-size",
                            str(args.cell_size), "--truncation", str(args.truncation),
                            "--label-every", "0", "--color-every", str(colour_every),
                            "--stats", stats_path], check=True,
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            with open(stats_path) as f:
                times.append([frame["submitMs"] for frame in json.load(f)["frames"]])
    open3d = statistics.median(open3d_in_one_thread(args, "run_open3d_raycast"))
    depth, colour = times[0][-RAYCAST_VIEWS:], times[1][-RAYCAST_VIEWS:]
    velmora = statistics.median(c - d for c, d in zip(colour, depth))
    print(f"{len(frames)} frames, cell {args.cell_size} m, truncation {args.truncation} m, "
          f"the last {RAYCAST_VIEWS} views")
    print(f"velmora: frames with colour {statistics.median(colour):.1f} ms, "
          f"depth only {statistics.median(depth):.1f} ms (medians)")
    print(f"{'rendering of one depth view':45s} {'median ms':>10s} {'ratio to velmora':>17s}")
    print(f"{'velmora (colour frame minus depth frame)':45s} {velmora:10.1f} {1.0:17.2f}")
    print(f"{'Open3D VoxelBlockGrid.ray_cast, 1 thread':45s} {open3d:10.1f} "
          f"{open3d / velmora:17.2f}")


# Repetitions of Open3D's mesh extraction; the median is reported.
MESH_REPETITIONS = 5


def run_open3d_mesh(frames, intrinsics, cell, truncation):
    """Median milliseconds of extract_triangle_mesh after fusing all frames, and its triangles."""
    import numpy as np
    import open3d as o3d

    o3d.utility.set_verbosity_level(o3d.utility.VerbosityLevel.Error)
    device = o3d.core.Device("CPU:0")
    grid = o3d.t.geometry.VoxelBlockGrid(attr_names=("tsdf", "weight"),
                                         attr_dtypes=(o3d.core.float32, o3d.core.float32),
                                         attr_channels=((1), (1)), voxel_size=cell,
                                         block_resolution=8, block_count=50000, device=device)
    fx, fy, cx, cy = intrinsics
    intrinsic = o3d.core.Tensor([[fx, 0, cx], [0, fy, cy], [0, 0, 1]], o3d.core.Dtype.Float64)
    for depth_path, pose in frames:
        depth = o3d.t.io.read_image(depth_path).to(device)
        extrinsic = o3d.core.Tensor(np.linalg.inv(np.array(pose).reshape(4, 4)),
                                    o3d.core.Dtype.Float64)
        coords = grid.compute_unique_block_coordinates(depth, intrinsic, extrinsic, 1000.0, 5.0,
                                                       truncation / cell)
        grid.integrate(coords, depth, intrinsic, extrinsic, 1000.0, 5.0, truncation / cell)
    wall = []
    cpu = []
    triangles = 0
    for _ in range(MESH_REPETITIONS):
        start_wall, start_cpu = time.perf_counter(), time.process_time()
        # Weight 1: every observed voxel counts, as Velmora's weight threshold 0 does.
        mesh = grid.extract_triangle_mesh(weight_threshold=1.0)
        wall.append((time.perf_counter() - start_wall) * 1000.0)
        cpu.append((time.process_time() - start_cpu) * 1000.0)
        triangles = mesh.triangle.indices.shape[0]
    return statistics.median(wall), statistics.median(cpu), triangles


def run_velmora_mesh(binary, name):
    """Wall and CPU milliseconds and triangles of the benchmark `name` of bench_surface."""
    out = subprocess.run([binary, "--benchmark_format=json", f"--benchmark_filter={name}$"],
                         check=True, capture_output=True, text=True).stdout
    result = json.loads(out)["benchmarks"][0]
    return result["real_time"], result["cpu_time"], int(result["triangles"])


def open3d_in_one_thread(args, function):
    """Runs `function(frames, intrinsics, cell_size, truncation)` of this module in a fresh
    interpreter limited to one OpenMP thread (the limit must be set before Open3D loads) and
    returns what it printed as JSON on its last line."""
    code = ("import json, sys; sys.path.insert(0, %r); import compare_open3d as c; "
            "f, k = c.load_sequence(%r); print(json.dumps(c.%s(f, k, %r, %r)))" %
            (os.path.dirname(os.path.abspath(__file__)), args.sequence, function, args.cell_size,
             args.truncation))
    env = dict(os.environ, OMP_NUM_THREADS="1")
    out = subprocess.run([sys.executable, "-c", code], check=True, env=env, capture_output=True,
                         text=True).stdout
    return json.loads(out.strip().splitlines()[-1])


def compare_meshing(args, frames, intrinsics):
    cell_mm = int(round(args.cell_size * 1000))
    rows = [("velmora MarchingCubes + mergeMesh (1 thread)",
             run_velmora_mesh(args.bench_surface, f"BM_MarchingCubesWholeRoomMerged/{cell_mm}"))]
    if cell_mm == 20:
        # The host's first request on the depth-only room: borders, meshing, ids, merge, copy.
        rows.append(("velmora extractSurface, first request (1 thread)",
                     run_velmora_mesh(args.bench_surface, "BM_ExtractSurfaceDepthOnly/0")))
    open3d_wall, open3d_cpu, open3d_triangles = open3d_in_one_thread(args, "run_open3d_mesh")
    # On a shared machine the CPU times are the steadier figures; both are printed. The ratios
    # are Open3D's time over each Velmora row's.
    print(f"{len(frames)} frames, cell {args.cell_size} m, truncation {args.truncation} m, "
          "whole-scene mesh")
    print(f"{'mesher':55s} {'wall ms':>9s} {'cpu ms':>9s} {'triangles':>10s} {'wall ratio':>10s} "
          f"{'cpu ratio':>10s}")
    for name, (wall, cpu, triangles) in rows:
        print(f"{name:55s} {wall:9.2f} {cpu:9.2f} {triangles:10d} {open3d_wall / wall:10.2f} "
              f"{open3d_cpu / cpu:10.2f}")
    print(f"{'Open3D VoxelBlockGrid.extract_triangle_mesh (1 thread)':55s} {open3d_wall:9.2f} "
          f"{open3d_cpu:9.2f} {open3d_triangles:10d} {1.0:10.2f} {1.0:10.2f}")
def run_open3d_scene(frames, intrinsics, cell, truncation, legacy, mesh_path):
    """Fuses the frames and meshes the whole scene with one Open3D integrator; writes the mesh to
    mesh_path and returns the per-frame milliseconds, the meshing milliseconds and the triangles."""
    import numpy as np
    import open3d as o3d

    frame_ms = run_open3d(frames, intrinsics, cell, truncation, 1, legacy, keep=True)
    volume = run_open3d.kept
    start = time.perf_counter()
    mesh = volume.extract_triangle_mesh()
    mesh_ms = (time.perf_counter() - start) * 1000.0
    if not legacy:
        mesh = mesh.to_legacy()
    o3d.io.write_triangle_mesh(mesh_path, mesh)
    return {"frameMs": frame_ms, "meshMs": mesh_ms, "triangles": len(np.asarray(mesh.triangles))}


def scene_table(args):
    """The side-by-side table: the built-in scene rendered once, fused and meshed by velmora and by
    both Open3D integrators with one thread at the same cell size, every mesh measured against the
    scene's truth by `velmora accuracy`."""
    width, height = (int(v) for v in args.size.split("x"))
    with tempfile.TemporaryDirectory() as tmp:
        seq = os.path.join(tmp, "seq")
        subprocess.run([args.velmora, "render-scene", seq, "--frames", str(args.frames), "--size",
                        args.size], check=True, stdout=subprocess.DEVNULL)
        frames, intrinsics = load_sequence(seq)
        rows = []
        velmora_ply = os.path.join(tmp, "velmora.ply")
        stats_path = os.path.join(tmp, "fuse.json")
        # Depth only and no depth beyond Open3D's 5 m, as Open3D integrates the frames.
        subprocess.run([args.velmora, "fuse", seq, "--cell-size", str(args.cell_size),
                        "--truncation", str(args.truncation), "--label-every", "0",
                        "--color-every", "0", "--max-depth", "5000", "--mesh", velmora_ply,
                        "--stats", stats_path], check=True, stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL)
        with open(stats_path) as f:
            stats = json.load(f)
        rows.append(("velmora (split, depth only)", [f["submitMs"] for f in stats["frames"]],
                     stats["stageSeconds"]["meshing"] * 1000.0, stats["triangles"], velmora_ply))
        for legacy in (True, False):
            ply = os.path.join(tmp, "open3d-%s.ply" % ("legacy" if legacy else "tensor"))
            code = ("import json, sys; sys.path.insert(0, %r); import compare_open3d as c; "
                    "f, k = c.load_sequence(%r); "
                    "print(json.dumps(c.run_open3d_scene(f, k, %r, %r, %r, %r)))" %
                    (os.path.dirname(os.path.abspath(__file__)), seq, args.cell_size,
                     args.truncation, legacy, ply))
            env = dict(os.environ, OMP_NUM_THREADS="1")
            out = subprocess.run([sys.executable, "-c", code], check=True, env=env,
                                 capture_output=True, text=True).stdout
            result = json.loads(out.strip().splitlines()[-1])
            name = "Open3D ScalableTSDFVolume" if legacy else "Open3D VoxelBlockGrid (CPU)"
            rows.append((name, result["frameMs"], result["meshMs"], result["triangles"], ply))

        print(f"built-in scene, {len(frames)} frames of {args.size}, cell {args.cell_size} m, "
              f"truncation {args.truncation} m, one thread")
        print(f"| {'integrator':30s} | ms/frame (median) | meshing ms | triangles | "
              f"mean mm | median mm | p95 mm | completeness |")
        print(f"|{'-' * 32}|-------------------|------------|-----------|---------|-----------|"
              f"--------|--------------|")
        for name, frame_ms, mesh_ms, triangles, ply in rows:
            accuracy_path = ply + ".json"
            subprocess.run([args.velmora, "accuracy", ply, "--frames", str(args.frames), "--size",
                            args.size, "--stats", accuracy_path], check=True,
                           stdout=subprocess.DEVNULL)
            with open(accuracy_path) as f:
                accuracy = json.load(f)
            distance = accuracy["distance"]
            print(f"| {name:30s} | {statistics.median(frame_ms):17.2f} | {mesh_ms:10.1f} | "
                  f"{triangles:9d} | {distance['mean'] * 1000:7.2f} | "
                  f"{distance['median'] * 1000:9.2f} | {distance['p95'] * 1000:6.2f} | "
                  f"{accuracy['completeness'] * 100:11.1f}% |")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("sequence", nargs="?",
                        help="recorded sequence; not needed with --scene-table")
    parser.add_argument("--scene-table", action="store_true",
                        help="side-by-side table on the built-in scene: per-frame time, meshing "
                             "time, triangles, accuracy and completeness against its truth")
    parser.add_argument("--frames", type=int, default=120,
                        help="--scene-table: frames of the built-in scene")
    parser.add_argument("--size", default="640x480",
                        help="--scene-table: image size of the built-in scene")
    parser.add_argument("--velmora", default=os.path.join(os.path.dirname(__file__), "..",
                                                          "build", "demo", "tools", "velmora"))
    parser.add_argument("--cell-size", type=float, default=0.02)
    parser.add_argument("--truncation", type=float, default=0.10)
    parser.add_argument("--mesh", action="store_true", help="compare whole-scene meshing")
    parser.add_argument("--raycast", action="store_true",
                        help="compare rendering one depth view (Open3D's ray_cast)")
    parser.add_argument("--write-corner", metavar="DIR",
                        help="write the view of BM_RaycastFrame as a sequence in DIR and stop")
    parser.add_argument("--bench-surface", default=os.path.join(
        os.path.dirname(__file__), "..", "build", "dev", "bench", "bench_surface"))
    args = parser.parse_args()
    if args.scene_table:
        scene_table(args)
        return
    if args.write_corner:
        write_corner(args.write_corner)
        return
    if not args.sequence:
        parser.error("give SEQUENCE_DIR, or --scene-table")

    frames, intrinsics = load_sequence(args.sequence)
    if not frames:
        sys.exit(f"{args.sequence}: no frames with a pose")
    if args.mesh:
        compare_meshing(args, frames, intrinsics)
        return
    if args.raycast:
        compare_raycast(args, frames, intrinsics)
        return
    rows = [("velmora fuse (split, depth only, 1 thread)",
             run_velmora(args.velmora, args.sequence, args.cell_size, args.truncation))]
    for legacy in (False, True):
        for threads in (1, 2):
            # Each configuration in its own process: Open3D reads OMP_NUM_THREADS once.
            code = ("import json, sys; sys.path.insert(0, %r); import compare_open3d as c; "
                    "f, k = c.load_sequence(%r); "
                    "print(json.dumps(c.run_open3d(f, k, %r, %r, %d, %r)))" %
                    (os.path.dirname(os.path.abspath(__file__)), args.sequence, args.cell_size,
                     args.truncation, threads, legacy))
            env = dict(os.environ, OMP_NUM_THREADS=str(threads))
            out = subprocess.run([sys.executable, "-c", code], check=True, env=env,
                                 capture_output=True, text=True).stdout
            name = ("Open3D ScalableTSDFVolume" if legacy else "Open3D VoxelBlockGrid (CPU)")
            rows.append((f"{name}, {threads} thread{'s' if threads > 1 else ''}",
                         json.loads(out.strip().splitlines()[-1])))

    base = statistics.median(rows[0][1])
    print(f"{len(frames)} frames, cell {args.cell_size} m, truncation {args.truncation} m")
    print(f"{'integrator':45s} {'median ms/frame':>16s} {'ratio to velmora':>17s}")
    for name, times in rows:
        median = statistics.median(times)
        print(f"{name:45s} {median:16.2f} {median / base:17.2f}")


if __name__ == "__main__":
    main()
