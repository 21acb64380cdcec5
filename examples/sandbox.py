# Reading works in the sandbox; writing does not.
import os
print("can read this file:", len(open(__file__).read()) > 0)
try:
    open("sandbox-output.txt", "w")
except PermissionError as e:
    print("writing a file:", e)
try:
    os.remove("nothing-to-remove")
except PermissionError as e:
    print("removing a file:", e)
print("sandbox held")
