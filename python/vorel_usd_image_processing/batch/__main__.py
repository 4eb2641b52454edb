"""python3 -m vorel_usd_image_processing.batch: the command line, or a converter process."""

import sys

# Everything that runs is imported from the package's modules, never defined here in __main__:
# Dask sends the task and its jobs to the workers by module name.
if sys.argv[1:2] == ["--serve"] and len(sys.argv) == 3:
    from vorel_usd_image_processing.batch.convert import serve

    serve(sys.argv[2], sys.stdin, sys.stdout)
else:
    from vorel_usd_image_processing.batch.cli import main

    sys.exit(main())
