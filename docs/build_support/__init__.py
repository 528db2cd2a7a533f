"""What the build of the documentation needs beside Sphinx."""
