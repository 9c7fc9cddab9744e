"""What becomes of the numbers that `bench/run.py` measures: the file, the table and the plots."""
