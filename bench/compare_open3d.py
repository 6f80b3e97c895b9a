#!/usr/bin/python3
"""Per-frame integration and rendering time of Velmora against Open3D on the same sequence.

Runs `velmora fuse --stats` (single-threaded, split mode, depth only) and integrates the same depth frames
with Open3D's VoxelBlockGrid on the CPU and with the legacy ScalableTSDFVolume, at the same cell
size and truncation, with one and with two threads. Prints the median per-frame time of each and
its ratio to Velmora's.

Rendering: every fourth frame, Velmora fuses the depth and then a colour image, for which it
renders a depth image of the volume from the frame's pose (near 0.05 m, far 5 m); the render time
is the median time of such frames less the median of the same frames without colour. Open3D's
VoxelBlockGrid integrates the same frames and ray-casts a depth image at each pose (one thread).

Usage: bench/compare_open3d.py SEQUENCE_DIR [--velmora PATH] [--cell-size M] [--truncation M]
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


# Frames of the rendering comparison: every fourth.
RENDER_EVERY = 4


def run_velmora_render(binary, directory, cell, truncation):
    """Median ms of the depth frames with a rendered colour frame, less those without."""
    medians = []
    for colour_every in (1, 0):
        with tempfile.TemporaryDirectory() as tmp:
            stats_path = os.path.join(tmp, "stats.json")
            subprocess.run([binary, "fuse", directory, "--cell-size", str(cell), "--truncation",
                            str(truncation), "--every", str(RENDER_EVERY), "--label-every", "0",
                            "--color-every", str(colour_every), "--stats", stats_path],
                           check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            with open(stats_path) as f:
                stats = json.load(f)
        medians.append(statistics.median(frame["submitMs"] for frame in stats["frames"]))
    return [medians[0] - medians[1]]


def run_open3d_render(frames, intrinsics, cell, truncation):
    """ms of VoxelBlockGrid.ray_cast of a depth image at the pose of each frame just fused."""
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
    times = []
    for depth_path, pose in frames[::RENDER_EVERY]:
        depth = o3d.t.io.read_image(depth_path).to(device)
        height, width = depth.rows, depth.columns
        extrinsic = o3d.core.Tensor(np.linalg.inv(np.array(pose).reshape(4, 4)),
                                    o3d.core.Dtype.Float64)
        coords = grid.compute_unique_block_coordinates(depth, intrinsic, extrinsic, 1000.0, 5.0,
                                                       truncation / cell)
        grid.integrate(coords, depth, intrinsic, extrinsic, 1000.0, 5.0, truncation / cell)
        start = time.perf_counter()
        # The blocks in the frustum, then the ray cast, as Open3D's own examples render.
        frustum = grid.compute_unique_block_coordinates(depth, intrinsic, extrinsic, 1000.0, 5.0,
                                                        truncation / cell)
        result = grid.ray_cast(block_coords=frustum, intrinsic=intrinsic, extrinsic=extrinsic,
                               width=width, height=height, render_attributes=["depth"],
                               depth_scale=1000.0, depth_min=0.05, depth_max=5.0,
                               weight_threshold=1.0)
        np.asarray(result["depth"].cpu())
        times.append((time.perf_counter() - start) * 1000.0)
    return times


def run_open3d(frames, intrinsics, cell, truncation, threads, legacy):
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
    return times


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("sequence")
    parser.add_argument("--velmora", default=os.path.join(os.path.dirname(__file__), "..",
                                                          "build", "demo", "tools", "velmora"))
    parser.add_argument("--cell-size", type=float, default=0.02)
    parser.add_argument("--truncation", type=float, default=0.10)
    args = parser.parse_args()

    frames, intrinsics = load_sequence(args.sequence)
    if not frames:
        sys.exit(f"{args.sequence}: no frames with a pose")
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

    code = ("import json, sys; sys.path.insert(0, %r); import compare_open3d as c; "
            "f, k = c.load_sequence(%r); print(json.dumps(c.run_open3d_render(f, k, %r, %r)))" %
            (os.path.dirname(os.path.abspath(__file__)), args.sequence, args.cell_size,
             args.truncation))
    out = subprocess.run([sys.executable, "-c", code], check=True,
                         env=dict(os.environ, OMP_NUM_THREADS="1"), capture_output=True,
                         text=True).stdout
    renders = [("velmora colour frame: volume rendering, 1 thread",
                run_velmora_render(args.velmora, args.sequence, args.cell_size, args.truncation)),
               ("Open3D VoxelBlockGrid ray_cast (depth), 1 thread",
                json.loads(out.strip().splitlines()[-1]))]

    print(f"{len(frames)} frames, cell {args.cell_size} m, truncation {args.truncation} m")
    for title, table in (("integrator", rows), ("renderer", renders)):
        base = statistics.median(table[0][1])
        print(f"{title:50s} {'median ms/frame':>16s} {'ratio to velmora':>17s}")
        for name, times in table:
            median = statistics.median(times)
            print(f"{name:50s} {median:16.2f} {median / base:17.2f}")


if __name__ == "__main__":
    main()
