// Keeps the support library non-empty when no helpers exist yet.
