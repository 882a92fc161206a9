# Configuration of the installed package.
