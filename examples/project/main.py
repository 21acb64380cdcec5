# A script with a module beside it: run it with `sarvode examples/project/main.py NAME`.
import sys

from helper import greeting

if __name__ == "__main__":
    print(greeting(sys.argv[1] if len(sys.argv) > 1 else "world"))
