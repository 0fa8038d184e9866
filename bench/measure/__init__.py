"""The parts of bench/run: what is measured, how it is run, and how it is shown."""
