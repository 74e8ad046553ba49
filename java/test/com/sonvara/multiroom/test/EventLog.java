package com.sonvara.multiroom.test;

import com.sonvara.multiroom.SonvaraNativeMgr;
import java.lang.reflect.Proxy;
import java.util.ArrayList;
import java.util.List;
import java.util.stream.Collectors;

/** Records every engine event as one text line, with the thread it arrived on. */
class EventLog {
    private final List<String> mTexts = new ArrayList<>();
    private final List<Thread> mThreads = new ArrayList<>();

    // The parts joined by '|': the event's name without "Notify", then its arguments.
    synchronized void add(Object... parts) {
        mTexts.add(List.of(parts).stream().map(String::valueOf).collect(Collectors.joining("|")));
        mThreads.add(Thread.currentThread());
        notifyAll();
    }

    synchronized List<String> texts() { return new ArrayList<>(mTexts); }

    // The threads the events whose text starts with prefix arrived on.
    synchronized List<Thread> threads(String prefix) {
        List<Thread> out = new ArrayList<>();
        for (int i = 0; i < mTexts.size(); i++) {
            if (mTexts.get(i).startsWith(prefix)) out.add(mThreads.get(i));
        }
        return out;
    }

    synchronized void clear() {
        mTexts.clear();
        mThreads.clear();
    }

    // Waits until an event starting with prefix arrives; false after timeoutMs.
    synchronized boolean await(String prefix, long timeoutMs) throws InterruptedException {
        long end = System.currentTimeMillis() + timeoutMs;
        while (mTexts.stream().noneMatch(t -> t.startsWith(prefix))) {
            long left = end - System.currentTimeMillis();
            if (left <= 0) return false;
            wait(left);
        }
        return true;
    }

    // A listener that records each event as its name without "on", then its arguments.
    SonvaraNativeMgr.Listener listener() {
        return (SonvaraNativeMgr.Listener) Proxy.newProxyInstance(EventLog.class.getClassLoader(),
            new Class<?>[] {SonvaraNativeMgr.Listener.class}, (proxy, method, args) -> {
                if (method.getDeclaringClass() == Object.class) return method.invoke(this, args);
                Object[] parts = new Object[args.length + 1];
                parts[0] = method.getName().substring(2);
                System.arraycopy(args, 0, parts, 1, args.length);
                add(parts);
                return null;
            });
    }
}
