// Keeps the support library non-empty before any shared helper exists.
