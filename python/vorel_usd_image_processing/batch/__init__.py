"""Converts many image files and USD assets on Dask: read, operations, colour for the target, write.

    python3 -m vorel_usd_image_processing.batch INPUT... -o OUTDIR --ext .png [--op NAME=ARGS]...

An input ending in .usd, .usda, .usdc or .usdz is a USD asset: every texture it uses is converted,
and the asset is written under OUTDIR (or packaged, with --usdz) to point at the new files.

Every input is reported exactly once, as a line of JSON, with the status converted, failed,
crashed, timed_out or skipped. Each Dask worker converts in a child process of its own, so that a
file on which one of OpenImageIO's readers aborts costs that child, not the worker or the batch.

The batch plans every path it reads and writes before anything runs, and refuses a plan that would
write over a source, outside the output folder, or two sources to one output.

Modules: job (what travels to a worker), inputs (finding inputs), plan (every path read and
written, checked as a whole), paths (the rules on paths), operations
(--op), convert (one file, in the converter process), child (the converter process, restarted
after a crash or a timeout), converters (the cluster), update (the record kept with each output,
and --update), assets (USD assets: their textures as jobs, and the asset written again), cli (the
command line, progress and report).
"""
