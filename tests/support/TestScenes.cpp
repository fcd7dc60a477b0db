// Shared helpers for the tests.
