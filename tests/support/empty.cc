// Keeps the support library non-empty while it has no sources of its own.
