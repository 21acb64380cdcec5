# A runtime error raised two calls deep: sarvode names the innermost line of
# this file, then prints Python's traceback.
def outer():
    return inner()

def inner():
    raise ValueError("something went wrong in inner()")

outer()
