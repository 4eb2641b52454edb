#!/usr/bin/env python3
"""Runs the fuzz target for a bounded time and sorts what it finds.

Some files crash OpenImageIO 2.4.7's readers by themselves (RLA's assertion, GIF's length_error),
whatever the caller does. So the target runs in libFuzzer's fork mode, which goes on after a
crash, and every input it kept is run again alone: it is ours when the innermost frame past the
runtimes is in this project or a huge allocation was made for an ImageBuf's pixels (whose sizes
the library checks), else a dependency's, reported only. Exits with 1 when any input is ours.
"""

import argparse
import pathlib
import re
import shutil
import subprocess
import sys

RUNTIME = re.compile(
    r"libasan|libubsan|libclang_rt|__asan|__sanitizer|__interceptor|fuzzer::|libc\.so|"
    r"libstdc\+\+|libgcc_s|ld-linux|\b(abort|raise|__assert_fail|__pthread_kill\w*|malloc|calloc|"
    r"realloc|operator new\S*|_start|main)\b")
OURS = re.compile(r"vorel|LLVMFuzzerTestOneInput|/fuzz/|/usd/image_processing/|/usd/stand_in/")
FRAME = re.compile(r"^\s*#\d+ 0x[0-9a-f]+ in (.*)$")


def make_seeds(seeds: pathlib.Path) -> None:
    """A small file of each extension the target picks from, by oiiotool, behind its byte."""
    source = (pathlib.Path(__file__).parent / "fuzz_read.cpp").read_text()
    listed = re.search(r"kExtensions\[\] = \{([^}]*)\}", source).group(1)
    shutil.rmtree(seeds, ignore_errors=True)
    seeds.mkdir(parents=True)
    for index, extension in enumerate(re.findall(r'"([^"]+)"', listed)):
        grey = extension == ".fits"
        fill = "fill:top=0.1:bottom=0.9" if grey else "fill:top=0.1,0.5,0.9:bottom=0.9,0.2,0.1"
        valid = seeds / f"valid{extension}"
        made = subprocess.run(["oiiotool", "--pattern", fill, "64x4", "1" if grey else "3", "-o",
                               str(valid)], capture_output=True, check=False)
        if made.returncode == 0 and valid.exists():  # OpenImageIO writes no PSD or PIC
            (seeds / f"seed{extension}").write_bytes(bytes([index]) + valid.read_bytes())
        valid.unlink(missing_ok=True)


def run_target(binary: pathlib.Path, seeds: pathlib.Path, work: pathlib.Path, seconds: int):
    corpus, artifacts = work / "corpus", work / "artifacts"
    shutil.rmtree(work, ignore_errors=True)
    for folder in (corpus, artifacts):
        folder.mkdir(parents=True)
    subprocess.run(
        [str(binary), "-fork=1", "-ignore_crashes=1", "-ignore_ooms=1", "-ignore_timeouts=1",
         f"-max_total_time={seconds}", "-timeout=10", "-rss_limit_mb=2560",
         f"-artifact_prefix={artifacts}/", str(corpus), str(seeds)],
        env={"ASAN_OPTIONS": "detect_leaks=0"}, check=False)
    return sorted(artifacts.iterdir())


def classify(binary: pathlib.Path, artifact: pathlib.Path):
    """('ours' | 'dependency', innermost frame, the whole report) of one kept input."""
    result = subprocess.run([str(binary), "-timeout=10", "-rss_limit_mb=2560", str(artifact)],
                            env={"ASAN_OPTIONS": "detect_leaks=0"}, capture_output=True,
                            text=True, errors="replace", timeout=300, check=False)
    report = result.stdout + result.stderr
    frames = [m.group(1) for m in map(FRAME.match, report.splitlines()) if m]
    innermost = next((f for f in frames if not RUNTIME.search(f)), "(no frame of code)")
    if result.returncode == 0:
        return "dependency", "does not happen again alone (memory or time of a whole run)", report
    huge_pixel_allocation = "out-of-memory (malloc(" in report and any(
        "ImageBufImpl::alloc" in f for f in frames)
    ours = huge_pixel_allocation or bool(OURS.search(innermost))
    return ("ours" if ours else "dependency"), innermost, report


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", type=pathlib.Path, required=True, help="the VOREL_FUZZ build")
    parser.add_argument("--seconds", type=int, default=40, help="fuzzing time per target")
    args = parser.parse_args()
    seeds = args.build / "fuzz" / "seeds"
    make_seeds(seeds)
    ours, binary = 0, args.build / "fuzz" / "fuzz_read"
    found = run_target(binary, seeds, args.build / "fuzz-runs" / "fuzz_read", args.seconds)
    print(f"== fuzz_read: {len(found)} inputs kept as crash, timeout or out-of-memory")
    for artifact in found:
        verdict, innermost, report = classify(binary, artifact)
        print(f"  {verdict}: {artifact.name}: {innermost[:160]}")
        if verdict == "ours":
            ours += 1
            print(report[-6000:])
    print(f"== {ours} inputs fail in the library's own code" if ours else
          "== nothing found in the library's own code")
    return 1 if ours else 0


if __name__ == "__main__":
    sys.exit(main())
