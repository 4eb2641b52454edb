"""Converts many image files on Dask: read, operations, colour for the target, write.

    python3 -m vorel_usd_image_processing.batch INPUT... -o OUTDIR --ext .png [--op NAME=ARGS]...

Every input is reported exactly once, as a line of JSON, with the status converted, failed,
crashed, timed_out or skipped. Each Dask worker converts in a child process of its own, so that a
file on which one of OpenImageIO's readers aborts costs that child, not the worker or the batch.

Modules: job (what travels to a worker), inputs (finding inputs, planning outputs), operations
(--op), convert (one file, in the converter process), converters (the converter processes and the
cluster), update (the record kept with each output, and --update), cli (the command line,
progress and report).
"""
