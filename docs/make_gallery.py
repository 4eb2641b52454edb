#!/usr/bin/env python3
"""Makes docs/gallery/*.png and docs/operations.md: one before/after picture per operation.

Every picture is written by the example host, vorel_image_tool: it reads an input, runs one
operation (--op) and writes the result as a PNG (-o, which is colorConvertByFormat followed by
writeImage). Inputs that the tool cannot make (a second image, an ID image) come from oiiotool.

    python3 docs/make_gallery.py [path/to/vorel_image_tool]

The tool defaults to build/examples/vorel_image_tool of this checkout. Standard library only.
"""

import shutil
import struct
import subprocess
import sys
import tempfile
from collections import namedtuple
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
DOCS = ROOT / "docs"
GALLERY = DOCS / "gallery"
PAGE = DOCS / "operations.md"
SIZE = 80  # thumbnail edge in pixels; keeps each PNG at a few KiB
LIMIT = 6 * 1024  # a thumbnail above this is reported

# An input file in the work folder: `tool` arguments run the example host, `oiiotool` ones
# run oiiotool. Each input is also shown as a picture of the same name.
Input = namedtuple("Input", "name file maker args what")

# One picture: `ops` run on `source` (a file in the work folder); `before` names the pictures
# shown on the left. The result also stays in the work folder as NAME.exr for later rows.
Row = namedtuple("Row", "name source ops before call what")

H = SIZE // 2
Q = SIZE // 4

INPUTS = [
    Input("sample", "sample.exr", "tool", ["--op", f"resize={SIZE}x{SIZE}", "-o", "sample.exr"],
          f"{SIZE}×{SIZE} linear RGBA, premultiplied: colour ramps in a soft disc; the "
          "256×256 vorel_sample.exr that the tool makes without an input, resized"),
    Input("sample-rgb", "sample-rgb.exr", "tool",
          ["sample.exr", "--op", "shuffle=0,1,2", "-o", "sample-rgb.exr"],
          "the sample's R, G, B without alpha"),
    Input("sample-alpha", "sample-alpha.exr", "tool",
          ["sample.exr", "--op", "shuffle=3", "-o", "sample-alpha.exr"],
          "the sample's A alone, one channel"),
    Input("dim", "dim.exr", "oiiotool",
          ["sample-rgb.exr", "--mulc", "0.4", "--addc", "0.1", "-o", "dim.exr"],
          "sample-rgb with its contrast lowered: 0.1 + 0.4 × value"),
    Input("background", "background.exr", "oiiotool",
          ["--pattern", "fill:top=0.05,0.1,0.4,1:bottom=0.6,0.45,0.05,1", f"{SIZE}x{SIZE}", "4",
           "-o", "background.exr"],
          "an opaque RGBA gradient, blue to ochre"),
    Input("patch", "patch.exr", "oiiotool",
          ["--pattern", "fill:color=0.9,0.6,0.1,1", f"{H}x{H}", "4", "-o", "patch.exr"],
          f"an opaque orange square, {H}×{H} RGBA"),
    Input("ids", "ids.tif", "oiiotool",
          ["--create", f"{SIZE}x{SIZE}", "1", "--subc", "1",
           "--fill:color=0.3", f"{Q + 6}x{H}+{Q // 2}+{Q // 2}",
           "--fill:color=0.6", f"{Q + 10}x{Q}+{H + 4}+{Q - 4}",
           "--fill:color=0.9", f"{H + 2}x{Q}+{Q + 2}+{H + 10}",
           "-d", "int32", "-o", "ids.tif"],
          "a one-channel INT32 ID image: negative (no identifier) around three rectangles "
          "of identifiers, large numbers from oiiotool's float to int32 scaling; the PNG "
          "writer shows them as grey levels"),
]

SECTIONS = [
    ("Geometry", [
        Row("fit", "sample.exr", [f"fit={SIZE}x{H}"], ["sample"],
            f"fit(image, ROI(0, {SIZE}, 0, {H}))",
            f"Scales into {SIZE}×{H} keeping the aspect ratio: a {H}×{H} data window at x={Q} "
            f"inside the {SIZE}×{H} display window, letterboxed."),
        Row("resize", "sample.exr", [f"resize={SIZE}x{H}"], ["sample"],
            f"resize(image, ROI(0, {SIZE}, 0, {H}))",
            f"Resamples to exactly {SIZE}×{H}; the aspect ratio is not kept."),
        Row("cut", "sample.exr", [f"cut={Q},{Q},{H},{H}"], ["sample"],
            f"cut(image, ROI({Q}, {Q + H}, {Q}, {Q + H}))",
            f"Keeps x {Q}..{Q + H}, y {Q}..{Q + H} and moves that region to the origin 0,0."),
        Row("rotate", "cut.exr", ["rotate=0.5"], ["cut"],
            "rotate(image, 0.5f, true)",
            "Turns clockwise by 0.5 radians (about 29°) about the centre; with recomputeRoi "
            "true the image grows to hold the corners, and what lies outside is transparent. "
            "Before: the result of cut."),
        Row("paste", "sample.exr", ["paste=patch.exr,8,8"], ["sample", "patch"],
            "paste(image, 8, 8, patch)",
            "Writes patch into image at column 8, row 8, in place; its pixels replace "
            "image's, alpha included (no blending). Returns true."),
    ]),
    ("Compositing and alpha", [
        Row("over", "sample.exr", ["over=background.exr"], ["sample", "background"],
            "over(image, background)",
            "A new image: image composited over background; both need an alpha channel."),
        Row("flatten", "sample.exr", ["flatten=0.2,0.3,0.4,1"], ["sample"],
            "compositeOverBackgroundColor(image, {0.2f, 0.3f, 0.4f, 1.0f})",
            "In place: image over a solid colour, given in image's (linear) colour space; the "
            "fourth value is the background's alpha."),
        Row("add-alpha", "sample-rgb.exr", ["add-alpha=0.5"], ["sample-rgb"],
            "addAlphaChannel(image, 0.5f)",
            "In place: a three-channel image gets channel A = 0.5. Colour is not touched, so it "
            "now counts as premultiplied and a PNG (straight alpha) shows it twice as bright."),
        Row("premult", "add-alpha.exr", ["premult"], ["add-alpha"],
            "preMultiply(image, PreMultMode::Premult)",
            "Multiplies colour by alpha: straight colour becomes premultiplied, and the "
            "picture shows the colours at half opacity. Before: the result of addAlphaChannel."),
        Row("unpremult", "premult.exr", ["unpremult"], ["premult"],
            "preMultiply(image, PreMultMode::Unpremult)",
            "Divides colour by alpha (where alpha isn't 0): back to straight colour. Before: "
            "the result of premult."),
    ]),
    ("Channels", [
        Row("invert", "sample.exr", ["invert"], ["sample"],
            "invert(image)",
            "1 − value in every channel, alpha included: the disc becomes a hole in an "
            "opaque white frame."),
        Row("invert-channel", "sample.exr", ["invert-channel=R"], ["sample"],
            'invertChannel(image, "R")',
            "1 − value in the channel named R only; G, B and A stay as they were."),
        Row("shuffle", "sample.exr", ["shuffle=2,1,0,3"], ["sample"],
            "shuffle(image, 4, {2, 1, 0, 3})",
            "A new image whose channel i is image's channel order[i]: here R and B swap."),
        Row("channel-append", "sample-rgb.exr", ["channel-append=sample-alpha.exr"],
            ["sample-rgb", "sample-alpha"],
            "channelAppend(rgb, alpha)",
            "The channels of the first image, then those of the second: R, G, B + A gives "
            "R, G, B, A, here the sample again."),
        Row("normalize", "dim.exr", ["normalize=0,1"], ["dim"],
            "normalize(image, 0.0f, 1.0f)",
            "Remaps R, G, B linearly with one range over all three: their smallest sample "
            "becomes 0, their largest 1. Other channels are carried across."),
    ]),
    ("Colour", [
        Row("set-color-space", "sample.exr", ["tag=sRGB"], ["sample"],
            'setColorSpace(image, "sRGB")',
            "In place, relabels only: the linear pixels now claim to be sRGB, so "
            "colorConvertByFormat skips the conversion for .png and they show too dark."),
        Row("color-convert", "sample.exr", ["color-convert=linear,sRGB"], ["set-color-space"],
            'colorConvert(image, "linear", "sRGB")',
            'Converts the pixels and tags the result "sRGB". Before: the sample\'s stored '
            "linear values shown unconverted (the picture of setColorSpace)."),
    ]),
    ("ID images", [
        Row("id-mask", "ids.tif", ["id-mask"], ["ids"],
            "idImageToMask(image)",
            "In place: a one-channel INT32 ID image becomes an 8-bit RGBA mask, 255 where "
            "there is an identifier (≥ 0), 0 where there is none, grown by a dilation of "
            "width 2."),
    ]),
]

HEADER = f"""\
# The operations at a glance

One small picture before and after each operation of `vorel::usd::image_processing`, with the
call that made it (written without the namespace; `ROI` is `OIIO::ROI`). Every picture is written
by the example host `vorel_image_tool`: it reads the input with `readImage`, runs the call with
`--op`, and writes the result with `-o NAME.png --png-compression 9`, which is
`colorConvertByFormat(image, "NAME.png")` (the image's tag decides the conversion to sRGB) and
`writeImage(image, "NAME.png", 9)`. So a picture shows what a host gets on its road from file to
file.

Reading the pictures:

- They are at most {SIZE}×{SIZE} pixels.
- A picture with an alpha channel, or whose pixels don't fill its display window, is shown over a
  grey checkerboard that covers both its pixels and its display window (the script composites it
  with `oiiotool` after the tool has written the PNG, which keeps neither window). So the
  checkerboard is transparency, the letterbox bands of `fit`, or the grown extent of `rotate`.
- OpenImageIO keeps colour premultiplied by alpha in memory; a PNG stores straight colour, so the
  PNG writer divides by alpha. Colour that isn't premultiplied therefore shows too bright where
  alpha is below 1 (see `addAlphaChannel`).

The script makes the pictures and this page (edit the script, not the page); `oiiotool` comes with
Debian's `openimageio-tools`. After `cmake -S . -B build && cmake --build build -j2`:

```sh
python3 docs/make_gallery.py [path/to/vorel_image_tool]
```
"""

NOT_PICTURED = """\
## Not pictured

- `readImage` and `writeImage`, and `colorConvertByFormat`, which every picture goes through.
- `createSolidColorImage`: `compositeOverBackgroundColor` calls it for its background.
- `convertIdImageToUint`: its UINT32 samples are identifiers plus one, not colours.
- `preMultiply` with `PreMultMode::Repremult`, `rotate` with `recomputeRoi` false, and regions
  other than the whole image (`ROI()`, the default) for `over`, `paste`, `invert` and
  `channelAppend`.
"""


CHECKER = "checker:width=8:height=8:color1=0.55,0.55,0.55,1:color2=0.7,0.7,0.7,1"
WINDOWS = "{TOP.nchannels} {TOP.x} {TOP.y} {TOP.width} {TOP.height} " \
          "{TOP.full_x} {TOP.full_y} {TOP.full_width} {TOP.full_height}"


def run(command, cwd):
    done = subprocess.run(command, cwd=cwd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          text=True)
    if done.returncode != 0:
        sys.exit(f"failed ({done.returncode}): {' '.join(map(str, command))}\n{done.stdout}")
    return done.stdout


def drop_time_and_text(path):
    """Removes the PNG's time and text chunks (a date, oiiotool's command line), so that a
    regenerated picture differs from the committed one only if its pixels do."""
    data = path.read_bytes()
    out, at = [data[:8]], 8
    while at < len(data):
        (length,) = struct.unpack(">I", data[at:at + 4])
        end = at + 12 + length
        if data[at + 4:at + 8] not in (b"tIME", b"tEXt", b"zTXt", b"iTXt"):
            out.append(data[at:end])
        at = end
    path.write_bytes(b"".join(out))


def show_over_checker(oiiotool, work, png, result):
    """Composites the picture over a checkerboard that covers its data window and its display
    window, so that transparency shows on any page, and so do letterbox bands (fit) and an
    extent beyond the display window (rotate). A PNG itself keeps neither window: both are
    taken from `result`, the same image written as OpenEXR."""
    channels, x, y, w, h, fx, fy, fw, fh = map(int, run([oiiotool, result, "--echo", WINDOWS],
                                                        work).split())
    if channels != 4 and (x, y, w, h) == (fx, fy, fw, fh):
        return
    x0, y0 = min(x, fx), min(y, fy)
    x1, y1 = max(x + w, fx + fw), max(y + h, fy + fh)
    run([oiiotool, png, "--origin", f"{x:+d}{y:+d}",
         "--pattern", CHECKER, f"{x1 - x0}x{y1 - y0}{x0:+d}{y0:+d}", "4", "--over",
         "--ch", "R,G,B", "--origin", "+0+0", "--fullpixels",
         "--attrib", "png:compressionLevel", "9", "-o", png], work)


def picture(tool, oiiotool, work, source, ops, name):
    """Runs `ops` on `source`, keeps the result as NAME.exr in `work` and writes it through the
    tool's -o as gallery/NAME.png, shown over a checkerboard where it needs one."""
    op_args = [arg for op in ops for arg in ("--op", op)]
    result = source
    if ops:
        result = f"{name}.exr"
        run([tool, source, *op_args, "-o", result], work)
    target = GALLERY / f"{name}.png"
    run([tool, source, *op_args, "-o", target, "--png-compression", "9"], work)
    show_over_checker(oiiotool, work, target, result)
    drop_time_and_text(target)


def image_cell(names):
    return " ".join(f"![{name}](gallery/{name}.png)" for name in names)


def tool_line(row):
    return " ".join(f"--op {op}" for op in row.ops)


def page():
    lines = [HEADER, "## Inputs", "",
             "| Picture | Input | Made by |", "|---|---|---|"]
    for item in INPUTS:
        maker = "vorel_image_tool" if item.maker == "tool" else "oiiotool"
        command = f"`{maker} {' '.join(item.args)}`"
        lines.append(f"| {image_cell([item.name])} | `{item.file}`: {item.what} | {command} |")
    lines.append("")
    for title, rows in SECTIONS:
        lines += [f"## {title}", "", "| Before | After | Call | What it does |",
                  "|---|---|---|---|"]
        for row in rows:
            call = f"`{row.call}`<br><sub>`{tool_line(row)}`</sub>"
            lines.append(f"| {image_cell(row.before)} | {image_cell([row.name])} | {call} "
                         f"| {row.what} |")
        lines.append("")
    lines.append(NOT_PICTURED)
    return "\n".join(lines)


def main():
    tool = Path(sys.argv[1] if len(sys.argv) > 1 else ROOT / "build/examples/vorel_image_tool")
    tool = tool.resolve()
    if not tool.is_file():
        sys.exit(f"no example host at {tool}; build it with "
                 "`cmake -S . -B build && cmake --build build -j2`")
    oiiotool = shutil.which("oiiotool")
    if not oiiotool:
        sys.exit("oiiotool not found (Debian package openimageio-tools)")

    GALLERY.mkdir(parents=True, exist_ok=True)
    for old in GALLERY.glob("*.png"):
        old.unlink()
    with tempfile.TemporaryDirectory() as work:
        for item in INPUTS:
            run([tool if item.maker == "tool" else oiiotool, *item.args], work)
            picture(tool, oiiotool, work, item.file, [], item.name)
        for _, rows in SECTIONS:
            for row in rows:
                picture(tool, oiiotool, work, row.source, row.ops, row.name)
    PAGE.write_text(page(), encoding="utf-8")

    for png in sorted(GALLERY.glob("*.png")):
        size = png.stat().st_size
        print(f"{size:6d}  {png.relative_to(ROOT)}{'  (large)' if size > LIMIT else ''}")
    print(f"wrote {PAGE.relative_to(ROOT)}")


if __name__ == "__main__":
    main()
