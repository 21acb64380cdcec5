# A module beside the script: found because the script's folder comes first
# on sys.path, as with python3.
def greeting(name):
    return f"Hello, {name}!"
