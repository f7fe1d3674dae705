"""What the end-to-end tests stand on: the real programs on pipes and on a terminal, and a daemon that follows a script."""
