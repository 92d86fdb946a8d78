// Anchors the support library when a build has no other support sources.
