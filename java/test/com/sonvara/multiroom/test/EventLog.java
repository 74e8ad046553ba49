package com.sonvara.multiroom.test;

import com.sonvara.multiroom.SonvaraNativeMgr;
import java.lang.reflect.Proxy;
import java.util.ArrayList;
import java.util.List;
import java.util.stream.Collectors;

/** Records every engine event as one text line, with the thread it arrived on. */
class EventLog {
    static final class Event {
        final String text;
        final Thread thread;

        Event(String text, Thread thread) {
            this.text = text;
            this.thread = thread;
        }
    }

    private final List<Event> mEvents = new ArrayList<>();

    // The parts joined by '|': the event's name without "Notify", then its arguments.
    synchronized void add(Object... parts) {
        String text = List.of(parts).stream().map(String::valueOf).collect(Collectors.joining("|"));
        mEvents.add(new Event(text, Thread.currentThread()));
        notifyAll();
    }

    synchronized List<Event> events() { return new ArrayList<>(mEvents); }

    synchronized List<String> texts() {
        return mEvents.stream().map(e -> e.text).collect(Collectors.toList());
    }

    synchronized void clear() { mEvents.clear(); }

    // Waits until an event starting with prefix arrives; false after timeoutMs.
    synchronized boolean await(String prefix, long timeoutMs) throws InterruptedException {
        long end = System.currentTimeMillis() + timeoutMs;
        while (mEvents.stream().noneMatch(e -> e.text.startsWith(prefix))) {
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
