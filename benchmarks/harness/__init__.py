"""What bench.py is made of."""
