# A short tour: Python evaluated by the host, host modules seen from Python,
# errors with positions, and the read-only sandbox.
import sys

print("Python", sys.version.split()[0], "running inside the sarvode host")
print("arguments:", sys.argv[1:])

# The host's modules are globals of every evaluation.
print("host modules seen by Python:", sorted(name for name in ("kest", "python") if name in globals()))

total = sum(x * x for x in range(10))
print("sum of squares below 10:", total)

# A script runs as __main__, the way python3 runs it.
if __name__ == "__main__":
    print("running as", __name__, "from", __file__.rsplit("/", 1)[-1])
